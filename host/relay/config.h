// The relay's configuration file. relay.conf, which is an example, says what may be in it.
#pragma once

#include <chrono>
#include <filesystem>
#include <set>
#include <string>

#include "host/fleet/settings_file.h"
#include "host/meaning/group.h"

namespace relay {

struct Config {
    fleet::Account account;
    std::string device;                                  // its name in the fleet
    std::set<host::Group> groups{host::Group::kReading}; // of methods that are passed on
    size_t requests = 64;                                // in flight; more are refused
    std::chrono::milliseconds hello{60000};              // between two messages that the device is there
    std::chrono::milliseconds retry{1000};               // between two attempts to reach the server or the daemon
    std::filesystem::path runDir = {};                   // of the daemon; empty: the usual one
};

// Throws std::runtime_error with "file:line: what is wrong, expected what". A device that the file does not name has
// the machine's id for a name, which is in the other file.
Config LoadConfig(const std::filesystem::path &file, const std::filesystem::path &machineId = "/etc/machine-id");
Config ConfigOf(fleet::SettingsFile file, const std::filesystem::path &machineId);

} // namespace relay
