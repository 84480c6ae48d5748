// What goes over a server's connections: captured, shown by other tools, and sent again.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "host/ctl/command.h"

namespace ctl {

struct CaptureOptions {
    std::filesystem::path runDir;
    std::string service = "TarnSysdiagTarnd"; // whose server
    std::optional<uint32_t> pid;              // whose agent instead
    std::string output;                       // empty for standard output
    std::vector<std::string> methods;         // none: all
    std::vector<std::string> processes;       // callers, as PROCESS; none: all
    uint32_t last = 0;                        // how many frames of the end are kept; 0: all
};

struct ReplayOptions {
    std::filesystem::path runDir;
    std::string file;
    bool all = false; // also what changes something
};

// Until it is interrupted.
void Capture(const CaptureOptions &options);

// Lua, for programs that dissect what was captured.
void WriteDissector();

void Replay(const ReplayOptions &options);

// The commands, with their options; the run directory is read when one runs.
void AddCaptures(const Command &program, const std::string &runDir);

} // namespace ctl
