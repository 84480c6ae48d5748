/*
 * The proxies of the remote service TarnSysdiagAgent, the diagnosis agent inside each application process. The calls
 * and their results are described in tarn_sysdiag/client/proxy.h.
 */
#ifndef TARN_CLIENT_AGENT_H
#define TARN_CLIENT_AGENT_H

#include "tarn_sysdiag/client/proxy.h"
#include "tarn_sysdiag/types/agent.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Identifies the service to the runtime. */
extern TARN_EXPORT IdlServerAddr g_stServerAddr_TarnSysdiagAgent;

#define TARN_METHOD(method, request, response) TARN_PROXY(TarnSysdiagAgent, method, request, response)
#define TARN_METHOD_NO_REPLY(method, request) TARN_PROXY_NO_REPLY(TarnSysdiagAgent, method, request)
#include "tarn_sysdiag/client/agent_methods.h"

#ifdef __cplusplus
}
#endif

#endif
