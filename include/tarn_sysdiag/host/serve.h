/* Serves on the host's runtime what a daemon implements: for daemons in C, or C++, that run on a workstation. */
#ifndef TARN_HOST_SERVE_H
#define TARN_HOST_SERVE_H

#include <stdint.h>

#include "tarn_sysdiag/platform/export.h"
#include "tarn_sysdiag/platform/rpc.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct TarnHost_Server TarnHost_Server;

typedef struct TarnHost_ServerOptions {
    const char *pcRunDir; /* directory of the sockets; null: $TARN_RUN_DIR, or where tarnctl looks without it */
    const char *pcPolicy; /* file that says who may call what; null: the same user and root may call everything */
    uint32_t uiWorkers;   /* requests that run at the same time, each on a thread; 0: 4 */
} TarnHost_ServerOptions;

/*
 * Listens on a socket for each service and answers its requests, on threads of its own, until TarnHost_StopServing.
 * Handlers run on any of them, at the same time. Null options stand for {NULL, NULL, 0}; the specifications stay the
 * caller's and must outlive the server. 0 and the server; else no server, TarnHost_LastError (call.h) says why, and:
 * 22 for a null argument, a specification that is not well-formed or comes twice, or a mistake in the policy's file;
 * 98 (EADDRINUSE) when another process serves there; the system's error for a socket or directory that it refuses.
 */
TARN_EXPORT uint32_t TarnHost_Serve(const TarnHost_ServerOptions *pstOptions, const IdlModuleSpec *const *ppstSpecs,
                                    uint32_t uiSpecNum, TarnHost_Server **ppstServer);

/*
 * Removes the sockets, refuses new requests, waits 5 s for handlers, and answers what is left with ECANCELED. The
 * server is released. 0, also for a null server; 110 (ETIMEDOUT) when a handler was still running: its thread is left
 * behind.
 */
TARN_EXPORT uint32_t TarnHost_StopServing(TarnHost_Server *pstServer);

#ifdef __cplusplus
}
#endif

#endif
