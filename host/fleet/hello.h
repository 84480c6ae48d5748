// What devices say of themselves.
#pragma once

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "host/fleet/nats.h"

namespace fleet {

// What a device said of itself last.
struct Hello {
    std::string device;
    std::chrono::system_clock::time_point seen;
    nlohmann::ordered_json said;

    // Of a member; "?" or 0 where it is not what it should be: any device may say anything.
    std::string Text(const char *member) const;
    uint64_t Number(const char *member) const;

    // It would have been heard again by now.
    bool IsSilent(std::chrono::system_clock::time_point now) const;

    // What it said of its health, which is what it was then; "silent" of one that is.
    std::string Health(std::chrono::system_clock::time_point now) const;

    // For programs: what it said, with its name, its health and when that was.
    nlohmann::ordered_json Row(std::chrono::system_clock::time_point now) const;
};

// Of all devices that have ever said something, by name. Throws Error.
std::vector<Hello> Hellos(Connection &connection);

} // namespace fleet
