/*
 * Empty definitions of what the library calls in the daemon and the runtime. Their debug information describes that
 * side of the interface as the library's own describes the exported one.
 */
#include "tarn_sysdiag/platform/rpc.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tarn_sysdiag/server/tarnd_agent.h"

#define DEFINE(method, request, response)                                                                              \
    uint32_t method(const Tarn_sys_diag_##request *pstRequest, void *pReplyCtx) {                                      \
        (void)pstRequest;                                                                                              \
        (void)pReplyCtx;                                                                                               \
        return 0;                                                                                                      \
    }                                                                                                                  \
    void method##_free(Tarn_sys_diag_##response *pstResponse) { (void)pstResponse; }
#define DEFINE_NO_REPLY(method, request)                                                                               \
    uint32_t method(const Tarn_sys_diag_##request *pstRequest) {                                                       \
        (void)pstRequest;                                                                                              \
        return 0;                                                                                                      \
    }

#define TARN_METHOD DEFINE
#define TARN_METHOD_NO_REPLY DEFINE_NO_REPLY
#include "tarn_sysdiag/server/tarnd_methods.h"
#define TARN_METHOD DEFINE
#define TARN_METHOD_NO_REPLY DEFINE_NO_REPLY
#include "tarn_sysdiag/server/tarnd_agent_methods.h"

uint32_t RPC_IdlMsgAsyncCall(const IdlAsyncCtx *pstCtx) {
    (void)pstCtx;
    return 0;
}

IdlServerCodecTable *RPC_GetUsrFuncLib(void *pRecord) {
    (void)pRecord;
    return 0;
}
