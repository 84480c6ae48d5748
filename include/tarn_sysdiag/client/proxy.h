/*
 * What a proxy looks like. For each method of a remote service:
 *
 * <Service>_<Method>SetIdl(table)                            Fills a codec table: decoder and release of the reply,
 *                                                            encoder and, where it has one, fixed form of the request.
 * <Service>_<Method>(in, out, ctx)                           Calls and waits. The result is the runtime's, or {0, 22}
 *                                                            after a null argument or where the runtime knows no such
 *                                                            service, or {0, 12} when it has no memory for a message.
 *                                                            The caller releases what the reply owns with the codec
 *                                                            table's pfnFreeUnpacked.
 * <Service>_<Method>_async(in, callback, user, ctx)          Starts a call. 0 once the runtime has been asked, whatever
 *                                                            it said; else 22 or 12, and the callback is not called.
 * <Service>_<Method>_oneway(in, ctx)                         Only methods without reply: sends and does not wait. The
 *                                                            runtime's code, or 22.
 *
 * Methods without reply have no `out`; their _async without a callback is the one-way call. `ctx` is handed to
 * RPC_GetRpcInvoke unchanged. All records stay the caller's. The functions are reentrant.
 */
#ifndef TARN_CLIENT_PROXY_H
#define TARN_CLIENT_PROXY_H

#include "tarn_sysdiag/platform/export.h"
#include "tarn_sysdiag/platform/rpc.h"

#define TARN_PROXY(service, method, request, response)                                                                 \
    TARN_EXPORT void service##_##method##SetIdl(IdlCodecTable *pstCodec);                                              \
    TARN_EXPORT IdlCallResult service##_##method(const Tarn_sys_diag_##request *pstIn,                                 \
                                                 Tarn_sys_diag_##response *pstOut, void *pInvokeCtx);                  \
    TARN_EXPORT uint32_t service##_##method##_async(const Tarn_sys_diag_##request *pstIn,                              \
                                                    IdlAsyncCallback pfnCallback, void *pUserData, void *pInvokeCtx);

#define TARN_PROXY_NO_REPLY(service, method, request)                                                                  \
    TARN_EXPORT void service##_##method##SetIdl(IdlCodecTable *pstCodec);                                              \
    TARN_EXPORT IdlCallResult service##_##method(const Tarn_sys_diag_##request *pstIn, void *pInvokeCtx);              \
    TARN_EXPORT uint32_t service##_##method##_async(const Tarn_sys_diag_##request *pstIn,                              \
                                                    IdlAsyncCallback pfnCallback, void *pUserData, void *pInvokeCtx);  \
    TARN_EXPORT uint32_t service##_##method##_oneway(const Tarn_sys_diag_##request *pstIn, void *pInvokeCtx);

#endif
