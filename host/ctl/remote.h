// What running servers have beyond what this program was built with: they say it of themselves.
#pragma once

#include <deque>
#include <filesystem>
#include <optional>
#include <string_view>
#include <vector>

#include "host/describe/reflection.h"

namespace ctl {

// The methods of the daemon, the master and one process's agent that are not known here. What it gives out lives as
// long as it.
class Remote {
public:
    explicit Remote(std::filesystem::path runDir, std::optional<uint32_t> agent = {})
        : runDir_(std::move(runDir)), agent_(agent) {}

    // By name or Service.Name; null when no server that can be asked has it. Throws Failure for a server that says what
    // can't be.
    const host::describe::Method *FindMethod(std::string_view name);
    std::vector<const host::describe::Method *> Methods();

private:
    void Ask();

    const std::filesystem::path runDir_;
    const std::optional<uint32_t> agent_;
    std::optional<std::deque<host::describe::Interface>> interfaces_; // of those that answered, when they were asked
};

// Known here, or else to a server; what is unknown to all fails with the closest names.
const host::describe::Method &RequireMethod(const std::string &name, Remote &remote);

} // namespace ctl
