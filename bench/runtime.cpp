// The runtime's functions and the daemon's methods, which do nothing. Messages come from one block that stays.
#include "bench/runtime.h"

#include "tarn_sysdiag/platform/rpc.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tarn_sysdiag/server/tarnd_agent.h"

namespace {
alignas(8) unsigned char block[1 << 20];
IdlServerCodecTable keptCodec;
} // namespace

void *bench::RuntimeObject() {
    return block;
}

uint32_t g_uiMoraModuleId;

void *RPC_GetRpcInvoke(IdlServerAddr *, void *) {
    return block;
}

void *RPC_IdlMsgCreate(uint32_t, uint32_t, const char *) {
    return block;
}

void RPC_IdlMsgDestroy(void *, uint32_t, const char *) {}

void RPC_IdlMsgSyncCall(IdlCallResult *, void *, const void *, void *, const IdlMethodName *, const IdlCodecTable *) {}

uint32_t RPC_IdlMsgAsyncCall(const IdlAsyncCtx *) {
    return 0;
}

uint32_t RPC_IdlMsgOnewayCall(void *, const void *, const IdlMethodName *, const IdlCodecTable *) {
    return 0;
}

void *RPC_IdlReqVeltoMsgUnPack(void *, void *record, const IdlServerCodecTable *) {
    return record;
}

IdlServerCodecTable *RPC_GetUsrFuncLib(void *) {
    return &keptCodec;
}

void *RPC_IdlMsgNew(uint32_t, uint32_t) {
    return block;
}

void RPC_IdlMsgFree(void *, uint32_t) {}

#define TARN_METHOD(method, request, response)                                                                         \
    uint32_t method(const Tarn_sys_diag_##request *, void *) {                                                         \
        return 0;                                                                                                      \
    }                                                                                                                  \
    void method##_free(Tarn_sys_diag_##response *) {}
#define TARN_METHOD_NO_REPLY(method, request)                                                                          \
    uint32_t method(const Tarn_sys_diag_##request *) {                                                                 \
        return 0;                                                                                                      \
    }
#include "tarn_sysdiag/server/tarnd_methods.h"

#define TARN_METHOD(method, request, response)                                                                         \
    uint32_t method(const Tarn_sys_diag_##request *, void *) {                                                         \
        return 0;                                                                                                      \
    }                                                                                                                  \
    void method##_free(Tarn_sys_diag_##response *) {}
#define TARN_METHOD_NO_REPLY(method, request)                                                                          \
    uint32_t method(const Tarn_sys_diag_##request *) {                                                                 \
        return 0;                                                                                                      \
    }
#include "tarn_sysdiag/server/tarnd_agent_methods.h"
