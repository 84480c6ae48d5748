#include "host/ctl/process.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "host/osal/text.h"

namespace ctl {

using host::describe::Json;

namespace {

std::vector<Process> ByName(Server &server, const std::string &pattern) {
    constexpr size_t kLongestPattern = 49;
    std::vector<Process> found;
    if (pattern.size() > kLongestPattern) {
        return found; // longer than any name
    }
    for (const Json &one : server.Ask("GetSysMemStatisPro", Json{{"process", pattern}}).In("processes").Named()) {
        found.push_back({one["process"].get<uint32_t>(), one["name"].get<std::string>()});
    }
    return found;
}

std::string ListOf(const std::vector<Process> &processes) {
    constexpr size_t kMost = 10;
    std::string text;
    for (size_t i = 0; i < std::min(processes.size(), kMost); ++i) {
        text += fmt::format("{}{} ({})", i == 0 ? "" : ", ", processes[i].pid, processes[i].name);
    }
    return text + (processes.size() > kMost ? fmt::format(" and {} more", processes.size() - kMost) : "");
}

} // namespace

std::string KernelName(const std::string &text) {
    constexpr size_t kKept = 15;
    return text.find_first_of("*?[\\") == text.npos ? text.substr(0, kKept) : text;
}

std::vector<Process> AllProcesses(Server &server) {
    return ByName(server, "");
}

// The health of the agents names them.
std::vector<Process> Agents(Server &server) {
    constexpr std::string_view kItem = "agent of process ";
    std::vector<Process> agents;
    for (const Json &item :
         server.Ask("TarnPadsGetSystemHealthInfoByTarnd", Json{{"item", "agents"}}).In("items").Named()) {
        const std::string name = item["name"].get<std::string>();
        uint32_t pid = 0;
        if (name.starts_with(kItem) &&
            std::from_chars(name.data() + kItem.size(), name.data() + name.size(), pid).ec == std::errc()) {
            agents.push_back({pid, item["source"].get<std::string>()});
        }
    }
    return agents;
}

std::vector<Process> FindProcesses(Server &server, const std::string &text) {
    uint32_t pid = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), pid);
    const bool isNumber = error == std::errc() && end == text.data() + text.size();
    if (isNumber && pid != 0) {
        return {{pid, ""}};
    }
    std::vector<Process> found = text.empty() || isNumber ? std::vector<Process>() : ByName(server, KernelName(text));
    for (const Process &agent : Agents(server)) {
        if (agent.name == text && std::ranges::find(found, agent.pid, &Process::pid) == found.end()) {
            found.push_back(agent);
        }
    }
    if (found.empty()) {
        throw Failure(kUsage, fmt::format("{}: no process and no agent has that name; tarnctl ps lists them",
                                          text.empty() ? "nothing" : text));
    }
    std::ranges::sort(found, {}, &Process::pid);
    return found;
}

Process FindProcess(Server &server, const std::string &text) {
    const std::vector<Process> found = FindProcesses(server, text);
    if (found.size() != 1) {
        throw Failure(kUsage, fmt::format("{}: {} processes, expected one of: {}", text, found.size(), ListOf(found)));
    }
    return found.front();
}

} // namespace ctl
