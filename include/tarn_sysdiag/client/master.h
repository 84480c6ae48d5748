/*
 * The proxies of the remote service TarnSysdiagMaster, the diagnosis master, which holds the daemon's configuration.
 * The calls and their results are described in tarn_sysdiag/client/proxy.h.
 */
#ifndef TARN_CLIENT_MASTER_H
#define TARN_CLIENT_MASTER_H

#include "tarn_sysdiag/client/proxy.h"
#include "tarn_sysdiag/types/master.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Identifies the service to the runtime. */
extern TARN_EXPORT IdlServerAddr g_stServerAddr_TarnSysdiagMaster;

#define TARN_METHOD(method, request, response) TARN_PROXY(TarnSysdiagMaster, method, request, response)
#define TARN_METHOD_NO_REPLY(method, request) TARN_PROXY_NO_REPLY(TarnSysdiagMaster, method, request)
#include "tarn_sysdiag/client/master_methods.h"

#ifdef __cplusplus
}
#endif

#endif
