#include "host/runtime/catalogue.h"

#include <iterator>
#include <unordered_map>
#include <vector>

#include "velto/layout.h"

// Their tables are read by what is included above.
#include "tarn_sysdiag/types/agent.h"
#include "tarn_sysdiag/types/master.h"
#include "tarn_sysdiag/types/tarnd.h"
#include "tarn_sysdiag/types/tarnd_agent.h"

namespace host {
namespace {

// A type without strings and vectors has a longest message. A newer client's has members that this one doesn't know.
template <class Request>
constexpr uint32_t RequestBytes() {
    if constexpr (velto::kOwns<Request>) {
        return 0;
    } else {
        return 2 * velto::kFixedSize<Request> + 4096;
    }
}

// A method as the lists have it: what the rest follows from.
struct Listed {
    const char *service, *method, *request, *response;
    uint32_t requestBytes;
};
constexpr Listed kListed[] = {
#define TARN_SERVICE_METHOD(service, method, request, response)                                                        \
    {#service, #method, #request, #response, RequestBytes<Tarn_sys_diag_##request>()},
#define TARN_SERVICE_METHOD_NO_REPLY(service, method, request)                                                         \
    {#service, #method, #request, "", RequestBytes<Tarn_sys_diag_##request>()},
#include "host/meaning/all_methods.h"
};

std::vector<MethodInfo> Build() {
    std::vector<MethodInfo> methods;
    methods.reserve(std::size(kListed));
    for (const Listed &one : kListed) {
        const uint32_t index = !methods.empty() && methods.back().service == one.service ? methods.back().index + 1 : 1;
        const uint32_t responseHash = one.response[0] == 0 ? 0 : velto::TypeHash(one.response);
        methods.push_back({one.service, one.method, index, one.request, one.response, velto::TypeHash(one.request),
                           responseHash, one.requestBytes});
    }
    return methods;
}

} // namespace

std::span<const MethodInfo> Catalogue() {
    static const std::vector<MethodInfo> methods = Build();
    return methods;
}

const MethodInfo *FindMethod(std::string_view method) {
    static const auto byName = [] {
        std::unordered_map<std::string_view, const MethodInfo *> map;
        for (const MethodInfo &info : Catalogue()) {
            map.emplace(info.method, &info);
        }
        return map;
    }();
    const auto found = byName.find(method);
    return found == byName.end() ? nullptr : found->second;
}

const MethodInfo *FindMethod(std::string_view service, std::string_view method) {
    const MethodInfo *const info = FindMethod(method);
    return info != nullptr && info->service == service ? info : nullptr;
}

} // namespace host
