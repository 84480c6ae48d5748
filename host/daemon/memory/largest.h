// What a reply has room for.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

namespace tarnd {

// The records that a reply has room for, the largest first, of any number that are added.
template <class Record>
class Largest {
public:
    explicit Largest(size_t capacity) : capacity_(capacity) {}

    void Add(uint64_t size, const Record &record) {
        sized_.emplace_back(size, record);
        if (sized_.size() == 2 * capacity_) {
            Cut();
        }
    }
    std::vector<Record> Take() {
        Cut();
        std::vector<Record> records;
        for (const auto &[size, record] : sized_) {
            records.push_back(record);
        }
        return records;
    }

private:
    using Sized = std::pair<uint64_t, Record>;

    void Cut() {
        std::ranges::stable_sort(sized_, std::ranges::greater(), &Sized::first);
        sized_.resize(std::min(sized_.size(), capacity_));
    }
    const size_t capacity_;
    std::vector<Sized> sized_;
};

} // namespace tarnd
