// services and stats: what the servers of the run directory say of themselves.
#include "host/runtime/status.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <iostream>

#include "host/ctl/outcome.h"
#include "host/ctl/print.h"
#include "host/ctl/units.h"
#include "host/osal/text.h"
#include "host/runtime/directory.h"

namespace ctl {

using namespace host::describe;

namespace {

constexpr std::string_view kAgentService = "TarnSysdiagAgent";

struct Server {
    std::string service;
    uint32_t pid; // whose agent, else 0
};

// Of "TarnSysdiagTarnd.sock", and of agents' sockets the process that holds it; other files of the directory are none
// of ours.
std::vector<Server> FindServers(const host::Client &client, const std::filesystem::path &runDir) {
    std::vector<Server> servers;
    for (const uint32_t pid : client.Agents()) {
        servers.push_back({std::string(kAgentService), pid});
    }
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator(runDir, error)) {
        const std::string name = entry.path().stem();
        if (entry.path().extension() == ".sock" && !name.starts_with("agent-")) {
            servers.push_back({name, 0});
        }
    }
    if (error) {
        throw Failure(kConnection, fmt::format("{}: cannot look for services: {}", runDir.string(), error.message()));
    }
    std::ranges::sort(servers, [](const Server &left, const Server &right) {
        return std::tie(left.service, left.pid) < std::tie(right.service, right.pid);
    });
    return servers;
}

void PrintHealth(const host::ServerHealth &health) {
    std::cout << fmt::format("process {}, {} for {}, {} of {} workers busy, connections {}, requests under way {}\n",
                             PidText(health.pid), host::LineOfText(health.state), DurationText(health.uptime),
                             health.busy, health.workers, health.connections, health.requests);
}

void PrintMistakes(const std::vector<std::string> &mistakes) {
    for (const std::string &mistake : mistakes) {
        std::cout << host::LineOfText(mistake) << "; what was in force before holds\n";
    }
}

void PrintValues(const char *title, const std::vector<host::NamedValue> &values, const Style &style) {
    std::cout << "\n" << title << "\n";
    Table table;
    for (const host::NamedValue &value : values) {
        table.Add({value.name, std::to_string(value.value), value.meaning});
    }
    table.Print(std::cout, style, 2);
}

// Methods that nobody has called say nothing.
void PrintMethods(const host::ServiceStatus &service, const Style &style) {
    Table table({"method", "calls", "errors", "cancelled", "p50", "p99", "max"});
    size_t called = 0;
    for (const host::MethodStatus &method : service.methods) {
        if (method.calls != 0) {
            ++called;
            table.Add({method.name, std::to_string(method.calls), std::to_string(method.errors),
                       std::to_string(method.cancelled), DurationText(method.p50), DurationText(method.p99),
                       DurationText(method.max)});
        }
    }
    std::cout << fmt::format("\n{}: {} of {} methods called\n", host::LineOfText(service.name), called,
                             service.methods.size());
    if (called != 0) {
        table.Print(std::cout, style, 2);
    }
}

} // namespace

void ListServices(const std::filesystem::path &given, bool json) {
    const std::filesystem::path runDir = host::Directory(given).RunDir();
    host::Client client({.runDir = runDir});
    Table table({"service", "process", "state", "uptime", "workers", "busy", "connections", "requests"});
    Json all = Json::array();
    const std::vector<Server> servers = FindServers(client, runDir);
    for (const Server &server : servers) {
        host::ServerHealth health;
        const host::CallOutcome outcome = AskHealth(client, server.service, server.pid, health);
        Json entry{{"service", server.service}, {"agentOf", server.pid}};
        if (outcome.Ok()) {
            const uint32_t pid = server.pid == 0 ? health.pid : server.pid; // not as a namespace of its own has it
            table.Add({server.service, PidText(pid), health.state, DurationText(health.uptime),
                       std::to_string(health.workers), std::to_string(health.busy), std::to_string(health.connections),
                       std::to_string(health.requests)});
            entry["health"] = Json::parse(host::ToJson(health));
        } else {
            table.Add({server.service, server.pid == 0 ? "-" : PidText(server.pid),
                       "no answer: " + std::system_category().message(static_cast<int>(outcome.errCode))});
            entry["error"] = outcome.text;
        }
        all.push_back(std::move(entry));
    }
    if (json) {
        std::cout << all.dump(2) << "\n";
    } else if (servers.empty()) {
        std::cout << "no services in " << runDir.string() << "\n";
    } else {
        const Output output;
        table.Print(std::cout, output.GetStyle());
    }
}

void Stats(const StatsOptions &options) {
    if (!options.service.empty()) {
        RequireService(options.service);
    }
    const std::string service = options.pid               ? std::string(kAgentService)
                                : options.service.empty() ? "TarnSysdiagTarnd"
                                                          : options.service;
    host::Client client({.runDir = options.runDir});
    host::ServerStatus status;
    const host::CallOutcome outcome = AskStatus(client, service, options.pid.value_or(0), status);
    if (!outcome.Ok()) {
        throw FailureOf(host::kRuntimeService, "Status", outcome);
    }
    if (options.json) {
        std::cout << Json::parse(host::ToJson(status)).dump(2) << "\n";
        return;
    }
    const Output output;
    const Style &style = output.GetStyle();
    PrintHealth(status.health);
    PrintMistakes(status.mistakes);
    for (const host::ServiceStatus &served : status.services) {
        PrintMethods(served, style);
    }
    PrintValues("refused or cut off", status.refused, style);
    PrintValues("limits", status.limits, style);
}

} // namespace ctl
