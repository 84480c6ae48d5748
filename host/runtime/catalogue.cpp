#include "host/runtime/catalogue.h"

#include <unordered_map>
#include <vector>

#include "velto/describe.h"

namespace host {
namespace {

std::vector<MethodInfo> Build() {
    std::vector<MethodInfo> methods;
    const char *service;
    uint32_t index;
    const auto begin = [&](const char *name) {
        service = name;
        index = 0;
    };
    const auto add = [&](const char *method, const char *request, const char *response) {
        const uint32_t responseHash = response[0] == 0 ? 0 : velto::TypeHash(response);
        methods.push_back({service, method, ++index, request, response, velto::TypeHash(request), responseHash});
    };

    begin("TarnSysdiagTarnd");
#define TARN_METHOD(method, request, response) add(#method, #request, #response);
#define TARN_METHOD_NO_REPLY(method, request) add(#method, #request, "");
#include "server/tarnd_methods.h"

    begin("TarnSysdiagTarndAgent");
#define TARN_METHOD(method, request, response) add(#method, #request, #response);
#define TARN_METHOD_NO_REPLY(method, request) add(#method, #request, "");
#include "server/tarnd_agent_methods.h"

    begin("TarnSysdiagAgent");
#define TARN_METHOD(method, request, response) add(#method, #request, #response);
#define TARN_METHOD_NO_REPLY(method, request) add(#method, #request, "");
#include "client/agent_methods.h"

    begin("TarnSysdiagMaster");
#define TARN_METHOD(method, request, response) add(#method, #request, #response);
#define TARN_METHOD_NO_REPLY(method, request) add(#method, #request, "");
#include "client/master_methods.h"

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
