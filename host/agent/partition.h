// A memory partition: a region that is split into buddies, runs of 1, 2, 4, ... blocks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <vector>

namespace agent {

class Partition {
public:
    // The region has `bytes` rounded down to whole blocks. Throws std::bad_alloc when there is no memory for it.
    Partition(size_t bytes, size_t blockBytes);
    ~Partition();
    Partition(const Partition &) = delete;
    Partition &operator=(const Partition &) = delete;

    struct Run {
        char *start = nullptr; // null: no room
        unsigned order = 0;    // 1 << order blocks
    };

    Run Take(size_t bytes);
    void Give(const Run &run);

    // The runs of one order.
    struct Class {
        uint32_t usedNum = 0;
        uint32_t peakNum = 0;
        uint32_t freeNum = 0;
    };

    size_t BlockBytes() const { return blockBytes_; }
    size_t RunBytes(unsigned order) const { return blockBytes_ << order; }
    size_t TotalBytes() const { return blockNum_ * blockBytes_; }
    size_t UsedBytes() const { return usedBytes_; }
    size_t PeakBytes() const { return peakBytes_; }
    size_t MaxFreeBytes() const;
    std::vector<Class> Classes() const; // by order

private:
    struct Level {
        std::set<size_t> free; // by number of the first block
        uint32_t usedNum = 0;
        uint32_t peakNum = 0;
    };

    const size_t blockBytes_;
    const size_t blockNum_;
    char *region_ = nullptr;
    std::vector<Level> levels_; // by order
    size_t usedBytes_ = 0;
    size_t peakBytes_ = 0;
};

} // namespace agent
