#include "tests/library/methods.h"

#include <stdexcept>

#include "tarn_sysdiag/client/agent.h"
#include "tarn_sysdiag/client/master.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tarn_sysdiag/server/tarnd_agent.h"

#define AS(type, pointer) static_cast<Tarn_sys_diag_##type *>(pointer)
#define AS_CONST(type, pointer) static_cast<const Tarn_sys_diag_##type *>(pointer)

#define ENTER_PROXY(service, method, request, response)                                                                \
    {#service,                                                                                                         \
     #method,                                                                                                          \
     #request,                                                                                                         \
     #response,                                                                                                        \
     &g_stServerAddr_##service,                                                                                        \
     service##_##method##SetIdl,                                                                                       \
     [](const void *in, void *out, void *ctx) {                                                                        \
         return service##_##method(AS_CONST(request, in), AS(response, out), ctx);                                     \
     },                                                                                                                \
     [](const void *in, IdlAsyncCallback callback, void *user, void *ctx) {                                            \
         return service##_##method##_async(AS_CONST(request, in), callback, user, ctx);                                \
     },                                                                                                                \
     nullptr},

#define ENTER_PROXY_NO_REPLY(service, method, request)                                                                 \
    {#service,                                                                                                         \
     #method,                                                                                                          \
     #request,                                                                                                         \
     "",                                                                                                               \
     &g_stServerAddr_##service,                                                                                        \
     service##_##method##SetIdl,                                                                                       \
     [](const void *in, void *, void *ctx) { return service##_##method(AS_CONST(request, in), ctx); },                 \
     [](const void *in, IdlAsyncCallback callback, void *user, void *ctx) {                                            \
         return service##_##method##_async(AS_CONST(request, in), callback, user, ctx);                                \
     },                                                                                                                \
     [](const void *in, void *ctx) { return service##_##method##_oneway(AS_CONST(request, in), ctx); }},

const std::vector<ProxyMethod> &ProxyMethods() {
    static const std::vector<ProxyMethod> methods = {
#define TARN_METHOD(method, request, response) ENTER_PROXY(TarnSysdiagAgent, method, request, response)
#define TARN_METHOD_NO_REPLY(method, request) ENTER_PROXY_NO_REPLY(TarnSysdiagAgent, method, request)
#include "tarn_sysdiag/client/agent_methods.h"
#define TARN_METHOD(method, request, response) ENTER_PROXY(TarnSysdiagMaster, method, request, response)
#define TARN_METHOD_NO_REPLY(method, request) ENTER_PROXY_NO_REPLY(TarnSysdiagMaster, method, request)
#include "tarn_sysdiag/client/master_methods.h"
    };
    return methods;
}

namespace {
std::vector<ServedMethod> Number(std::vector<ServedMethod> methods) {
    for (size_t i = 0; i < methods.size(); ++i) {
        const bool first = i == 0 || methods[i].service != methods[i - 1].service;
        methods[i].index = first ? 1 : methods[i - 1].index + 1;
    }
    return methods;
}

template <class Method>
const Method &Find(const std::vector<Method> &methods, const std::string &name) {
    for (const Method &method : methods) {
        if (method.name == name) {
            return method;
        }
    }
    throw std::runtime_error("no such method: " + name);
}
} // namespace

#define ENTER_SERVED(service, method, request, response)                                                               \
    {#service, 0, #method, #request, #response, method##_wrapper, reinterpret_cast<IdlUsrFreeFn>(method##_free)},
#define ENTER_SERVED_NO_REPLY(service, method, request) {#service, 0, #method, #request, "", method##_wrapper, nullptr},

const std::vector<ServedMethod> &ServedMethods() {
    static const std::vector<ServedMethod> methods = Number({
#define TARN_METHOD(method, request, response) ENTER_SERVED(TarnSysdiagTarnd, method, request, response)
#define TARN_METHOD_NO_REPLY(method, request) ENTER_SERVED_NO_REPLY(TarnSysdiagTarnd, method, request)
#include "tarn_sysdiag/server/tarnd_methods.h"
#define TARN_METHOD(method, request, response) ENTER_SERVED(TarnSysdiagTarndAgent, method, request, response)
#define TARN_METHOD_NO_REPLY(method, request) ENTER_SERVED_NO_REPLY(TarnSysdiagTarndAgent, method, request)
#include "tarn_sysdiag/server/tarnd_agent_methods.h"
    });
    return methods;
}

const ProxyMethod &FindProxy(const std::string &name) {
    return Find(ProxyMethods(), name);
}

const ServedMethod &FindServed(const std::string &name) {
    return Find(ServedMethods(), name);
}
