#include "host/runtime/catalogue.h"

#include <unordered_map>
#include <vector>

#include "velto/describe.h"

namespace host {
namespace {

std::vector<MethodInfo> Build() {
    std::vector<MethodInfo> methods;
    const auto add = [&](std::string_view service, const char *method, const char *request, const char *response) {
        const uint32_t index = !methods.empty() && methods.back().service == service ? methods.back().index + 1 : 1;
        const uint32_t responseHash = response[0] == 0 ? 0 : velto::TypeHash(response);
        methods.push_back({service, method, index, request, response, velto::TypeHash(request), responseHash});
    };
#define TARN_SERVICE_METHOD(service, method, request, response) add(#service, #method, #request, #response);
#define TARN_SERVICE_METHOD_NO_REPLY(service, method, request) add(#service, #method, #request, "");
#include "host/meaning/all_methods.h"
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
