#include "host/meaning/agent.h"

#define TARN_METHOD(method, request, response)                                                                         \
    DEFINE_MEANING(TarnSysdiagAgent, method, Tarn_sys_diag_##request, Tarn_sys_diag_##response)
#define TARN_METHOD_NO_REPLY(method, request)                                                                          \
    DEFINE_MEANING(TarnSysdiagAgent, method, Tarn_sys_diag_##request, host::meaning::NoRecord)
#include "client/agent_methods.h"

namespace host::meaning {

namespace {

constexpr const Method *kMethods[] = {
#define TARN_METHOD(method, request, response) MEANING_ADDRESS(method)
#define TARN_METHOD_NO_REPLY(method, request) MEANING_ADDRESS(method)
#include "client/agent_methods.h"
};

} // namespace

const Service kAgent{"TarnSysdiagAgent",
                     "The diagnosis agent inside an application. A method whose reply has a result fails with that and "
                     "nothing else; the call of any other that fails ends with the errno value as its status.",
                     kMethods};

} // namespace host::meaning
