// The process that a person means.
#pragma once

#include "host/ctl/server.h"

namespace ctl {

struct Process {
    uint32_t pid;
    std::string name;
};

// What such an operand is called in help, and completed with.
constexpr char kProcess[] = "PROCESS";
constexpr char kProcessHelp[] = "A process: its id, its name, a pattern such as 'worker*', or an agent's name";

// A name or pattern of one as the kernel has it, which keeps 15 bytes of a name.
std::string KernelName(const std::string &text);

// All that a text stands for: the process of that id, whatever its name; or those of that name, with a name of that
// pattern, or with an agent of that name. Throws Failure where there is none.
std::vector<Process> FindProcesses(Server &server, const std::string &text);

// The one; several are listed in the failure.
Process FindProcess(Server &server, const std::string &text);

// All that may be seen.
std::vector<Process> AllProcesses(Server &server);

// The agents that the daemon knows, by their names.
std::vector<Process> Agents(Server &server);

} // namespace ctl
