// What the command line says.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>

namespace tarnd {

struct Options {
    std::filesystem::path runDirectory;   // of the sockets
    std::filesystem::path faultDirectory; // of what agents record
    std::string logDirectory = "/var/log/tarn";
    std::string stateDirectory;                     // of what is kept beyond a restart; empty: nothing is
    std::map<std::string, std::string> copyTargets; // directories by name
    std::chrono::milliseconds sampleInterval{1000};
    bool runsByItself = true;                      // else who owns the daemon takes its samples, and runs what is due
    uint64_t measuredBytesPerSecond = 100'000'000; // 0: no limit
    std::optional<std::filesystem::path> zoneLink; // names the system's zone; none: the system's clock is not set
    std::string systemDirectory = "/sys/devices/system"; // where the kernel shows CPUs and memory
    std::string sharedMemoryDirectory = "/dev/shm";
};

} // namespace tarnd
