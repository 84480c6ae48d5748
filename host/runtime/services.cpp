#include "host/runtime/services.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "host/runtime/catalogue.h"

namespace host {
namespace {

std::string_view Field(const char *field, size_t size) {
    return {field, strnlen(field, size)};
}

MethodStatus Describe(const ServedMethod &method) {
    const std::string_view name = Field(method.entry->acMethod, sizeof method.entry->acMethod);
    MethodStatus status;
    status.index = method.index;
    status.name = name;
    status.requestHash = method.entry->uiRequestHash;
    if (const MethodInfo *const known = FindMethod(method.service, name)) {
        status.request = known->request;
        status.response = known->response;
        status.responseHash = known->responseHash;
    }
    const MethodStatistics &statistics = method.statistics;
    status.calls = statistics.calls;
    status.errors = statistics.errors;
    status.cancelled = statistics.cancelled;
    status.p50 = statistics.latency.Percentile(0.50);
    status.p99 = statistics.latency.Percentile(0.99);
    status.max = statistics.latency.Max();
    status.sum = statistics.latency.Sum();
    if (status.calls != 0) {
        for (const Histogram::Bound &bound : statistics.latency.Below()) {
            status.below.push_back({bound.below, bound.count});
        }
    }
    return status;
}

uint32_t RequestBytesOf(std::string_view service, const IdlInterfaceEntry &entry) {
    const MethodInfo *const known = FindMethod(service, Field(entry.acMethod, sizeof entry.acMethod));
    return known == nullptr || known->requestHash != entry.uiRequestHash ? 0 : known->requestBytes;
}

} // namespace

ServedMethod::ServedMethod(std::string_view of, const IdlInterfaceEntry &described, uint32_t place)
    : service(of), entry(&described), index(place), requestBytes(RequestBytesOf(of, described)) {}

std::string_view Services::NameOf(const IdlModuleSpec &spec) {
    return Field(spec.acService, sizeof spec.acService);
}

void Services::Refuse(const IdlModuleSpec &spec, const std::string &why) {
    throw std::invalid_argument(fmt::format("module specification \"{}\": {}", NameOf(spec), why));
}

Services::Service Services::Make(const IdlModuleSpec &spec) {
    if (NameOf(spec).empty()) {
        Refuse(spec, "it names no service");
    }
    if (spec.pstInterfaces == nullptr || spec.uiInterfaceNum == 0) {
        Refuse(spec, "it has no interface table");
    }
    Service service;
    for (uint32_t i = 1; i < spec.uiInterfaceNum; ++i) {
        const IdlInterfaceEntry &entry = spec.pstInterfaces[i];
        const std::string_view method = Field(entry.acMethod, sizeof entry.acMethod);
        if (method.empty() || entry.pfnWrapper == nullptr) {
            Refuse(spec, fmt::format("interface entry {} has no name or no wrapper", i));
        }
        service.methods.push_back(std::make_unique<ServedMethod>(NameOf(spec), entry, i));
        if (!service.byName.emplace(method, service.methods.back().get()).second) {
            Refuse(spec, fmt::format("interface entry {}: {} is there twice", i, method));
        }
    }
    return service;
}

void Services::Check(const IdlModuleSpec &spec) {
    Make(spec);
}

Services::Services(const std::vector<const IdlModuleSpec *> &specs) {
    for (const IdlModuleSpec *const spec : specs) {
        services_.emplace(NameOf(*spec), Make(*spec));
    }
}

ServedMethod *Services::Find(const FrameHeader &header, Refusal &refusal) const {
    const auto service = services_.find(header.service);
    if (service == services_.end()) {
        refusal = {Reason::kUnknown, ENOENT, "no such service here; served are"};
        for (const auto &[name, ignored] : services_) {
            refusal.text += fmt::format(" {}", name);
        }
        return nullptr;
    }
    const auto method = service->second.byName.find(header.method);
    if (method == service->second.byName.end()) {
        refusal = {Reason::kUnknown, ENOENT, "the service has no such method"};
        return nullptr;
    }
    const uint32_t expected = method->second->entry->uiRequestHash;
    if (header.typeHash != expected) {
        refusal = {Reason::kTypeMismatch, EPROTOTYPE,
                   fmt::format("request of type {:#010x}, expected {:#010x}: client and server differ in the type",
                               header.typeHash, expected)};
        return nullptr;
    }
    const uint32_t most = method->second->requestBytes;
    if (most != 0 && header.length > most) {
        refusal = {Reason::kRequestSize, EMSGSIZE,
                   fmt::format("request of {} bytes, expected at most {}", header.length, most)};
        return nullptr;
    }
    return method->second;
}

std::vector<ServiceStatus> Services::Describe() const {
    std::vector<ServiceStatus> all;
    for (const auto &[name, service] : services_) {
        ServiceStatus &status = all.emplace_back();
        status.name = name;
        for (const auto &method : service.methods) {
            status.methods.push_back(host::Describe(*method));
        }
    }
    std::sort(all.begin(), all.end(), [](const auto &left, const auto &right) { return left.name < right.name; });
    return all;
}

} // namespace host
