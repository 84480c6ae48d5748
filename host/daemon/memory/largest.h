// What a reply has room for.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <vector>

namespace tarnd {

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

} // namespace tarnd
