// The services that a server serves, from their module specifications.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "host/runtime/protocol.h"
#include "host/runtime/statistics.h"
#include "host/runtime/status.h"
#include "tarn_sysdiag/platform/rpc.h"

namespace host {

struct ServedMethod {
    ServedMethod(std::string_view of, const IdlInterfaceEntry &described, uint32_t place);
    const std::string_view service;
    const IdlInterfaceEntry *const entry;
    const uint32_t index;
    const uint32_t requestBytes; // at most; 0: no other bound than any message's
    MethodStatistics statistics = {};
};

// Why a request is not served.
struct Refusal {
    Reason reason;
    uint32_t errCode;
    std::string text;
};

class Services {
public:
    // The specifications and their tables must outlive it.
    explicit Services(const std::vector<const IdlModuleSpec *> &specs);

    // Throws std::invalid_argument for a specification that is not well-formed.
    static void Check(const IdlModuleSpec &spec);
    [[noreturn]] static void Refuse(const IdlModuleSpec &spec, const std::string &why);
    static std::string_view NameOf(const IdlModuleSpec &spec);

    // Null and the reason when there is no such method, or one whose requests are of another type or never so large.
    ServedMethod *Find(const FrameHeader &header, Refusal &refusal) const;

    std::vector<ServiceStatus> Describe() const;

private:
    struct Service {
        std::vector<std::unique_ptr<ServedMethod>> methods; // by interface index, from 1
        std::unordered_map<std::string_view, ServedMethod *> byName;
    };
    static Service Make(const IdlModuleSpec &spec);

    std::unordered_map<std::string_view, Service> services_;
};

} // namespace host
