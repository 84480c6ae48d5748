// Health items of the process: the agent's own and those that the application adds.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "host/osal/mutex.h"

namespace agent {

class Health {
public:
    struct Finding {
        uint8_t level;
        std::string text;
    };
    using Check = std::function<Finding(uint32_t limit)>;
    struct Item {
        std::string name;
        uint32_t limit;
        Check check;
        bool on = true;
    };
    struct Result : Finding {
        std::string name;
    };

    explicit Health(std::map<uint8_t, Item> own) : items_(std::move(own)) {}

    uint32_t Add(uint8_t function, const char *name, uint32_t limit, Check check); // 0, EINVAL or EEXIST
    void SetAll(bool on);
    void Set(uint8_t function, bool on, uint32_t limit); // throws ENOENT
    bool IsOn() const;
    std::vector<Result> Look() const; // at the items that are on; the others are unknown

private:
    mutable host::Mutex mutex_;
    bool on_ TARN_GUARDED_BY(mutex_) = true;
    std::map<uint8_t, Item> items_ TARN_GUARDED_BY(mutex_);
};

} // namespace agent
