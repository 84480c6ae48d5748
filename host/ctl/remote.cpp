#include "host/ctl/remote.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/ctl/commands.h"
#include "host/runtime/status.h"

namespace ctl {

using host::describe::Method;

// A server that is not there, or is too old to describe itself, has nothing that is not known here.
void Remote::Ask() {
    if (interfaces_) {
        return;
    }
    interfaces_.emplace();
    struct Server {
        std::string_view service;
        uint32_t pid;
    };
    std::vector<Server> servers{{"TarnSysdiagTarnd", 0}, {"TarnSysdiagMaster", 0}};
    if (agent_) {
        servers.push_back({"TarnSysdiagAgent", *agent_});
    }
    host::Client client({.runDir = runDir_});
    for (const Server &server : servers) {
        std::string description;
        if (!AskDescription(client, server.service, server.pid, description).Ok()) {
            continue;
        }
        try {
            interfaces_->emplace_back(description);
        } catch (const host::describe::ReflectionError &error) {
            throw Failure(kRefused, fmt::format("{} describes itself: {}", server.service, error.what()));
        }
    }
}

std::vector<const Method *> Remote::Methods() {
    Ask();
    std::vector<const Method *> methods;
    for (const host::describe::Interface &interface : *interfaces_) {
        for (const Method &method : interface.Methods()) {
            if (host::describe::FindMethod(fmt::format("{}.{}", method.service, method.name)) == nullptr) {
                methods.push_back(&method);
            }
        }
    }
    return methods;
}

const Method *Remote::FindMethod(std::string_view name) {
    const auto methods = Methods();
    const auto found = std::ranges::find_if(methods, [name](const Method *method) {
        return name == method->name || name == fmt::format("{}.{}", method->service, method->name);
    });
    return found == methods.end() ? nullptr : *found;
}

} // namespace ctl
