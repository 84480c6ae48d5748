// Who holds an application's memory, as its agent tells it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "host/daemon/agents/agent_line.h"

namespace tarnd {

// As text for people: the handles that hold most, each with where most of that was allocated, and the blocks that are
// held though their threads have ended. What an agent has for each of its answers is asked for anew. Throws what the
// agent line throws.
std::string HoldersText(AgentLine &line, uint32_t pid, const std::function<uint32_t()> &timeoutMs);

} // namespace tarnd
