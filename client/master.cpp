// The unit of the master proxies: codecs, name pairs and exported functions.
#include "client/frame.h"

TARN_UNIT()

#include "tarn_sysdiag/client/master.h"

IdlServerAddr g_stServerAddr_TarnSysdiagMaster = {{}, "TarnSysdiagMaster"};

namespace {

enum MethodIndex : uint32_t {
#define TARN_METHOD(name, request, response) kIndex_##name,
#define TARN_METHOD_NO_REPLY(name, request) kIndex_##name,
#include "tarn_sysdiag/client/master_methods.h"
};

IdlMethodName methodNames[] = {
#define TARN_METHOD(name, request, response) {"TarnSysdiagMaster", #name},
#define TARN_METHOD_NO_REPLY(name, request) {"TarnSysdiagMaster", #name},
#include "tarn_sysdiag/client/master_methods.h"
};

} // namespace

#define TARN_METHOD(name, request, response) TARN_DEFINE_PROXY(TarnSysdiagMaster, name, request, response)
#define TARN_METHOD_NO_REPLY(name, request) TARN_DEFINE_PROXY_NO_REPLY(TarnSysdiagMaster, name, request)
#include "tarn_sysdiag/client/master_methods.h"
