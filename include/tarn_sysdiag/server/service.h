/*
 * What a method of a served service looks like.
 *
 * The daemon implements, and the library imports:
 *   <Method>(request, replyCtx)   Answers a request through the runtime and its reply context. The record and all that
 *                                 it points to are valid until the function returns. Returns 0, or a status that the
 *                                 wrapper hands to the runtime unchanged.
 *   <Method>_free(response)       Releases what the daemon allocated for its response record; the runtime calls it
 *                                 when the reply has been encoded.
 * A method without reply is <Method>(request), and has no _free.
 *
 * The library exports, and the runtime calls:
 *   <Method>_wrapper(request, replyCtx, codec)   Decodes a request, calls <Method>, releases the request. Returns 12
 *                                 for a request that was refused or no memory, 1 when the codec table could not be
 *                                 kept with the request, else what <Method> returned.
 */
#ifndef TARN_SERVER_SERVICE_H
#define TARN_SERVER_SERVICE_H

#include "tarn_sysdiag/platform/export.h"
#include "tarn_sysdiag/platform/rpc.h"

#define TARN_SERVED(method, request, response)                                                                         \
    TARN_EXPORT uint32_t method(const Tarn_sys_diag_##request *pstRequest, void *pReplyCtx);                           \
    TARN_EXPORT void method##_free(Tarn_sys_diag_##response *pstResponse);                                             \
    TARN_EXPORT uint32_t method##_wrapper(void *pRequest, void *pReplyCtx, IdlServerCodecTable *pstCodec);

#define TARN_SERVED_NO_REPLY(method, request)                                                                          \
    TARN_EXPORT uint32_t method(const Tarn_sys_diag_##request *pstRequest);                                            \
    TARN_EXPORT uint32_t method##_wrapper(void *pRequest, void *pReplyCtx, IdlServerCodecTable *pstCodec);

#endif
