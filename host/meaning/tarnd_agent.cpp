#include "host/meaning/tarnd_agent.h"

#define TARN_METHOD(method, request, response)                                                                         \
    DEFINE_MEANING(TarnSysdiagTarndAgent, method, Tarn_sys_diag_##request, Tarn_sys_diag_##response)
#define TARN_METHOD_NO_REPLY(method, request)                                                                          \
    DEFINE_MEANING(TarnSysdiagTarndAgent, method, Tarn_sys_diag_##request, host::meaning::NoRecord)
#include "server/tarnd_agent_methods.h"

namespace host::meaning {

namespace {

constexpr const Method *kMethods[] = {
#define TARN_METHOD(method, request, response) MEANING_ADDRESS(method)
#define TARN_METHOD_NO_REPLY(method, request) MEANING_ADDRESS(method)
#include "server/tarnd_agent_methods.h"
};

} // namespace

const Service kTarndAgent{"TarnSysdiagTarndAgent",
                          "The daemon's service for agents, with which they register and subscribe.", kMethods};

} // namespace host::meaning
