// Health items of the process: the agent's own and those that the application adds.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "host/agent/tarn_agent.h"

namespace agent {

class Health {
public:
    Health(); // with the agent's own items

    struct Finding {
        uint8_t level;
        std::string text;
    };
    using Check = std::function<Finding(uint32_t limit)>;
    struct Result : Finding {
        std::string name;
    };

    uint32_t Add(uint8_t function, const char *name, uint32_t limit, Check check); // 0, EINVAL or EEXIST
    void SetAll(bool on);
    void Set(uint8_t function, bool on, uint32_t limit); // throws ENOENT
    bool IsOn() const;
    std::vector<Result> Look() const; // at all items that are on

private:
    struct Item {
        std::string name;
        uint32_t limit;
        Check check;
        bool on = true;
    };

    void AddOwn();

    mutable std::mutex mutex_;
    bool on_ = true;
    std::map<uint8_t, Item> items_;
};

Health &TheHealth();

// The name that results carry.
void SetHealthName(const std::string &agentName);

} // namespace agent
