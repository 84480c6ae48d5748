// The sockets of agents. An agent's is agent-<pid>.sock; where that is another's, agent-<pid>-<something>.sock. The
// number is what the agent's process calls itself, which in a namespace of its own is another than here.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <vector>

namespace host {

// A name that nobody can have taken before.
std::filesystem::path SpareAgentSocket(const std::filesystem::path &runDir);

// All that there are.
std::vector<std::filesystem::path> AgentSockets(const std::filesystem::path &runDir);

// Those, besides agent-<pid>.sock, that the process may have made: named as it calls itself, and files of its user or
// of root. At most as many as are worth trying.
std::vector<std::filesystem::path> OtherSocketsOfAgent(const std::filesystem::path &runDir, uint32_t pid);

// The number in the name of an agent's socket; 0 in another.
uint32_t NumberInName(const std::filesystem::path &socket);

} // namespace host
