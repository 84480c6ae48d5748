// The unit of the agent proxies: codecs, name pairs and exported functions.
#include "client/frame.h"

TARN_UNIT()

#include "tarn_sysdiag/client/agent.h"

IdlServerAddr g_stServerAddr_TarnSysdiagAgent = {{}, "TarnSysdiagAgent"};

namespace {

enum MethodIndex : uint32_t {
#define TARN_METHOD(name, request, response) kIndex_##name,
#define TARN_METHOD_NO_REPLY(name, request) kIndex_##name,
#include "tarn_sysdiag/client/agent_methods.h"
};

IdlMethodName methodNames[] = {
#define TARN_METHOD(name, request, response) {"TarnSysdiagAgent", #name},
#define TARN_METHOD_NO_REPLY(name, request) {"TarnSysdiagAgent", #name},
#include "tarn_sysdiag/client/agent_methods.h"
};

} // namespace

#define TARN_METHOD(name, request, response) TARN_DEFINE_PROXY(TarnSysdiagAgent, name, request, response)
#define TARN_METHOD_NO_REPLY(name, request) TARN_DEFINE_PROXY_NO_REPLY(TarnSysdiagAgent, name, request)
#include "tarn_sysdiag/client/agent_methods.h"
