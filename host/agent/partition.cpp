#include "host/agent/partition.h"

#include <sys/mman.h>

#include <algorithm>
#include <bit>
#include <new>

namespace agent {

Partition::Partition(size_t bytes, size_t blockBytes)
    : blockBytes_(blockBytes), blockNum_(bytes / blockBytes), levels_(static_cast<size_t>(std::bit_width(blockNum_))) {
    void *const map = mmap(nullptr, TotalBytes(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED) {
        throw std::bad_alloc();
    }
    region_ = static_cast<char *>(map);
    // The largest runs that are aligned to their own size, from the left: any number of blocks, not only a power of 2.
    for (size_t block = 0; block < blockNum_;) {
        size_t order = block == 0 ? levels_.size() - 1 : static_cast<size_t>(std::countr_zero(block));
        while (block + (size_t{1} << order) > blockNum_) {
            --order;
        }
        levels_[order].free.insert(block);
        block += size_t{1} << order;
    }
}

Partition::~Partition() {
    munmap(region_, TotalBytes());
}

Partition::Run Partition::Take(size_t bytes) {
    if (bytes > TotalBytes()) {
        return {};
    }
    const size_t blocks = std::bit_ceil((bytes + blockBytes_ - 1) / blockBytes_);
    const auto wanted = static_cast<size_t>(std::countr_zero(blocks));
    size_t order = wanted;
    while (order < levels_.size() && levels_[order].free.empty()) {
        ++order;
    }
    if (order >= levels_.size()) {
        return {};
    }
    const size_t block = *levels_[order].free.begin();
    levels_[order].free.erase(block);
    while (order > wanted) { // gives the right half back
        --order;
        levels_[order].free.insert(block + (size_t{1} << order));
    }
    Level &level = levels_[wanted];
    level.peakNum = std::max(level.peakNum, ++level.usedNum);
    usedBytes_ += RunBytes(static_cast<unsigned>(wanted));
    peakBytes_ = std::max(peakBytes_, usedBytes_);
    return {region_ + block * blockBytes_, static_cast<unsigned>(wanted)};
}

void Partition::Give(const Run &run) {
    --levels_[run.order].usedNum;
    usedBytes_ -= RunBytes(run.order);
    size_t block = static_cast<size_t>(run.start - region_) / blockBytes_;
    size_t order = run.order;
    // Joins with its buddy as long as that is free and whole.
    while (order + 1 < levels_.size() && levels_[order].free.erase(block ^ (size_t{1} << order)) != 0) {
        block &= ~(size_t{1} << order);
        ++order;
    }
    levels_[order].free.insert(block);
}

size_t Partition::MaxFreeBytes() const {
    for (size_t order = levels_.size(); order-- > 0;) {
        if (!levels_[order].free.empty()) {
            return RunBytes(static_cast<unsigned>(order));
        }
    }
    return 0;
}

std::vector<Partition::Class> Partition::Classes() const {
    std::vector<Class> classes;
    for (const Level &level : levels_) {
        classes.push_back({level.usedNum, level.peakNum, static_cast<uint32_t>(level.free.size())});
    }
    return classes;
}

} // namespace agent
