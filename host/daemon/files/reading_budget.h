// How much of others' files is read in one pass, whatever they make of them: a file without blocks has any size.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>

namespace tarnd {

class ReadingBudget {
public:
    struct Limits {
        uint64_t file = 2ULL << 30;
        uint64_t owner = 4ULL << 30; // of the files of a user
        uint64_t all = 32ULL << 30;  // of the files of all users but the trusted ones
    };

    ReadingBudget(const Limits &limits, uid_t own) : limits_(limits), own_(own) {}

    // More than is read of one file, whoever owns it.
    bool IsTooLarge(uint64_t size) const { return size > limits_.file; }

    // Charges a file to its owner; false when that is beyond a limit. Root's files and the daemon's own are not
    // charged, so that nobody's files take their place.
    bool Take(uid_t owner, uint64_t size, size_t nameLength) {
        if (owner == 0 || owner == own_) {
            return true;
        }
        // A small file costs as well: it is opened, and its name kept.
        const uint64_t cost = size + (kPerFile + nameLength) * kPerCharacter;
        uint64_t &used = used_[owner];
        if (cost > limits_.owner - used || cost > limits_.all - usedOfAll_) {
            return false;
        }
        used += cost;
        usedOfAll_ += cost;
        return true;
    }

private:
    static constexpr uint64_t kPerFile = 64, kPerCharacter = 4096;

    const Limits limits_;
    const uid_t own_;
    std::map<uid_t, uint64_t> used_;
    uint64_t usedOfAll_ = 0;
};

} // namespace tarnd
