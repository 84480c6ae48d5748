// The debug commands that every agent has: what the process itself can tell.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include <fmt/format.h>

#include "host/agent/commands.h"
#include "host/osal/text.h"
#include "host/procfs/procfs.h"

namespace agent {

namespace {

uint32_t Pid() {
    return static_cast<uint32_t>(getpid());
}

uint32_t ShowHelp(int, const char *const *, TarnAgentOutput *output, void *table) {
    TarnAgent_Print(output, "%s", static_cast<const CommandTable *>(table)->Help().c_str());
    return 0;
}

uint32_t ShowThreads(int, const char *const *, TarnAgentOutput *output, void *) {
    TarnAgent_Print(output, "%8s %-16s %-24s %10s\n", "TID", "NAME", "STATE", "CPU ticks");
    for (const host::procfs::Task &task : host::procfs::Procfs().ReadThreads(Pid())) {
        const std::string line = fmt::format("{:>8} {:<16} {:<24} {:>10}", task.id, host::LineOfText(task.name),
                                             host::procfs::StateText(task.state), task.CpuTicks());
        TarnAgent_Print(output, "%s\n", line.c_str());
    }
    return 0;
}

uint32_t ShowMemory(int, const char *const *, TarnAgentOutput *output, void *) {
    const std::string status = host::procfs::Procfs().Read("self/status");
    for (const char *const key :
         {"VmPeak", "VmSize", "VmHWM", "VmRSS", "RssAnon", "RssFile", "RssShmem", "VmData", "VmStk", "VmSwap"}) {
        TarnAgent_Print(output, "%-8s %10llu kB\n", key,
                        static_cast<unsigned long long>(host::procfs::FieldOf(status, key)));
    }
    return 0;
}

uint32_t ShowFds(int, const char *const *, TarnAgentOutput *output, void *) {
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone; // the one that reads the directory is, at the end
        const std::string target = std::filesystem::read_symlink(entry.path(), gone).string();
        if (!gone) {
            TarnAgent_Print(output, "%4s %s\n", entry.path().filename().c_str(), host::LineOfText(target).c_str());
        }
    }
    return 0;
}

uint32_t ShowEnv(int argc, const char *const *argv, TarnAgentOutput *output, void *) {
    if (argc != 2) {
        TarnAgent_Print(output, "expected: env NAME\n");
        return EINVAL;
    }
    const char *const value = getenv(argv[1]);
    if (value == nullptr) {
        TarnAgent_Print(output, "%s is not set\n", argv[1]);
        return ENOENT;
    }
    TarnAgent_Print(output, "%s=%s\n", argv[1], value);
    return 0;
}

uint32_t ShowUptime(int, const char *const *, TarnAgentOutput *output, void *) {
    const double system = std::stod(host::procfs::Procfs().Read("uptime"));
    const auto start = static_cast<double>(host::procfs::Procfs().ReadProcess(Pid()).startTicks);
    const double process = system - start / static_cast<double>(host::procfs::TicksPerSecond());
    TarnAgent_Print(output, "process %.2f s\nsystem %.2f s\n", process, system);
    return 0;
}

} // namespace

void AddBuiltins(CommandTable &table) {
    table.Add("help", "lists the commands", ShowHelp, &table);
    table.Add("threads", "the threads, their states and CPU time", ShowThreads, nullptr);
    table.Add("memory", "how much memory the process has", ShowMemory, nullptr);
    table.Add("fds", "open descriptors", ShowFds, nullptr);
    table.Add("env", "NAME: a variable of the environment", ShowEnv, nullptr);
    table.Add("uptime", "how long the process and the system have run", ShowUptime, nullptr);
}

} // namespace agent
