#include "served.h"

#include <map>
#include <mutex>

#include "host/answer/unit.h"
#include "server/frame.h"

TARN_UNIT()

#include "tarn_sysdiag/server/tarnd.h"
#include "tarn_sysdiag/server/tarnd_agent.h"
#include "tarn_sysdiag/types/agent.h"

namespace served {
namespace {

std::mutex mutex;
std::map<std::string, Handler> handlers;
std::map<std::string, uint32_t> freed;

uint32_t Handle(const char *method, const void *request, void *replyCtx) {
    Handler handler;
    {
        const std::lock_guard lock(mutex);
        const auto found = handlers.find(method);
        if (found == handlers.end()) {
            return 38;
        }
        handler = found->second;
    }
    return handler(request, replyCtx);
}

void CountFree(const char *method) {
    const std::lock_guard lock(mutex);
    ++freed[method];
}

} // namespace

void On(const std::string &method, Handler handler) {
    const std::lock_guard lock(mutex);
    handlers[method] = std::move(handler);
}

void Reset() {
    const std::lock_guard lock(mutex);
    handlers.clear();
    freed.clear();
}

uint32_t Freed(const std::string &method) {
    const std::lock_guard lock(mutex);
    return freed[method];
}

} // namespace served

#define SERVED(method, request, response)                                                                              \
    uint32_t method(const Tarn_sys_diag_##request *record, void *replyCtx) {                                           \
        return served::Handle(#method, record, replyCtx);                                                              \
    }                                                                                                                  \
    void method##_free(Tarn_sys_diag_##response *) {                                                                   \
        served::CountFree(#method);                                                                                    \
    }
#define SERVED_NO_REPLY(method, request)                                                                               \
    uint32_t method(const Tarn_sys_diag_##request *record) {                                                           \
        return served::Handle(#method, record, nullptr);                                                               \
    }

extern "C" {

#define TARN_METHOD SERVED
#define TARN_METHOD_NO_REPLY SERVED_NO_REPLY
#include "tarn_sysdiag/server/tarnd_methods.h"

#define TARN_METHOD SERVED
#define TARN_METHOD_NO_REPLY SERVED_NO_REPLY
#include "tarn_sysdiag/server/tarnd_agent_methods.h"

} // extern "C"

namespace {

#define TARN_METHOD SERVED
#define TARN_METHOD_NO_REPLY SERVED_NO_REPLY
#include "tarn_sysdiag/client/agent_methods.h"

#define TARN_SERVICE TarnSysdiagAgent
#define TARN_METHODS "tarn_sysdiag/client/agent_methods.h"
#include "server/tables.inc"

} // namespace

const IdlModuleSpec &served_module_spec_TarnSysdiagAgent = __module_spec_TarnSysdiagAgent;
