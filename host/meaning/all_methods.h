// The list of services, for all that is made once for each method: TARN_SERVICE_METHOD(Service, Method, Request,
// Response), and TARN_SERVICE_METHOD_NO_REPLY(Service, Method, Request) for those that are not answered; service by
// service, each in the order of its interface indices. Included once for each use, with both macros defined; it
// undefines them.
#if !defined(TARN_SERVICE_METHOD) || !defined(TARN_SERVICE_METHOD_NO_REPLY)
#error "host/meaning/all_methods.h: define TARN_SERVICE_METHOD and TARN_SERVICE_METHOD_NO_REPLY before including it"
#endif

#define TARN_METHOD(method, request, response) TARN_SERVICE_METHOD(TarnSysdiagTarnd, method, request, response)
#define TARN_METHOD_NO_REPLY(method, request) TARN_SERVICE_METHOD_NO_REPLY(TarnSysdiagTarnd, method, request)
#include "tarn_sysdiag/server/tarnd_methods.h"

#define TARN_METHOD(method, request, response) TARN_SERVICE_METHOD(TarnSysdiagTarndAgent, method, request, response)
#define TARN_METHOD_NO_REPLY(method, request) TARN_SERVICE_METHOD_NO_REPLY(TarnSysdiagTarndAgent, method, request)
#include "tarn_sysdiag/server/tarnd_agent_methods.h"

#define TARN_METHOD(method, request, response) TARN_SERVICE_METHOD(TarnSysdiagAgent, method, request, response)
#define TARN_METHOD_NO_REPLY(method, request) TARN_SERVICE_METHOD_NO_REPLY(TarnSysdiagAgent, method, request)
#include "tarn_sysdiag/client/agent_methods.h"

#define TARN_METHOD(method, request, response) TARN_SERVICE_METHOD(TarnSysdiagMaster, method, request, response)
#define TARN_METHOD_NO_REPLY(method, request) TARN_SERVICE_METHOD_NO_REPLY(TarnSysdiagMaster, method, request)
#include "tarn_sysdiag/client/master_methods.h"

#undef TARN_SERVICE_METHOD
#undef TARN_SERVICE_METHOD_NO_REPLY
