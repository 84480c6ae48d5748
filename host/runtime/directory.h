// Where services are found: each listens on a socket in the run directory.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string_view>

namespace host {

// $TARN_RUN_DIR; else /run/tarn for root or where it exists; else $XDG_RUNTIME_DIR/tarn; else /run/tarn.
std::filesystem::path DefaultRunDir();

// What is kept for this user beyond a restart of the machine, below his home: $XDG_STATE_HOME, or ~/.local/state. Empty
// where there is none.
std::filesystem::path UserStateDir();

// Where the agents of a run directory record faults, which shall outlive the machine's restart: $TARN_FAULT_DIR; else
// /var/lib/tarn-faults for /run/tarn, and tarn-faults in UserStateDir() for $XDG_RUNTIME_DIR/tarn; else the run
// directory, which somebody has chosen.
std::filesystem::path FaultDir(const std::filesystem::path &runDir);

class Directory {
public:
    // An empty path is DefaultRunDir().
    explicit Directory(std::filesystem::path runDir = {});

    const std::filesystem::path &RunDir() const { return runDir_; }

    // agent-<pid>.sock for TarnSysdiagAgent, <service>.sock for every other service. Pid 0 is the calling process.
    std::filesystem::path Socket(std::string_view service, uint32_t pid) const;

private:
    std::filesystem::path runDir_;
};

} // namespace host
