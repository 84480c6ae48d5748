// Faults of the application: fatal signals and failed assertions, recorded in the black box.
#pragma once

#include <array>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <string>

namespace agent {

inline constexpr std::array kFaultSignals{SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};

// While one lives, faults are recorded. There is at most one.
class Faults {
public:
    // A black box that can't be had is logged: the application runs all the same.
    Faults(const std::string &agentName, const std::filesystem::path &directory);
    ~Faults();
    Faults(const Faults &) = delete;
    Faults &operator=(const Faults &) = delete;
};

// Those recorded since the process started.
uint32_t FaultNum();

} // namespace agent
