// Files that have no place but memory.
#pragma once

#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

namespace tarnd {

// Hands each regular file below a directory, on its file system, to a function: its path and its status. One that has
// several names comes once. What goes away meanwhile or may not be seen is left out.
using TakeFile = std::function<void(const std::string &path, const struct stat &status)>;
void ForEachFile(const std::string &directory, const TakeFile &take);

// The records that a reply has room for, the largest first, of any number that are added.
template <class Record>
class Largest {
public:
    Largest(size_t capacity, std::function<uint64_t(const Record &)> size)
        : capacity_(capacity), size_(std::move(size)) {}

    void Add(const Record &record) {
        records_.push_back(record);
        if (records_.size() == 2 * capacity_) {
            Cut();
        }
    }
    std::vector<Record> Take() {
        Cut();
        return std::move(records_);
    }

private:
    void Cut() {
        std::stable_sort(records_.begin(), records_.end(),
                         [&](const Record &a, const Record &b) { return size_(a) > size_(b); });
        records_.resize(std::min(records_.size(), capacity_));
    }
    const size_t capacity_;
    const std::function<uint64_t(const Record &)> size_;
    std::vector<Record> records_;
};

// What a file takes, in KiB: a sparse one less than its size.
uint32_t TakenKib(const struct stat &status);

} // namespace tarnd
