/*
 * A complete daemon in C: every handler and every release of the two served services, by the lists of methods, on a
 * runtime that is just large enough to dispatch to them. It sends an empty request to every method and counts.
 */
#include <stdio.h>
#include <string.h>

#include "tarn_sysdiag/platform/rpc.h"
#include "tarn_sysdiag/platform/securec.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tarn_sysdiag/server/tarnd_agent.h"

/* The daemon. */

static const char *g_pcHandled;
static unsigned g_uiReleased;

#define HANDLE(method, request, response)                                                                              \
    uint32_t method(const Tarn_sys_diag_##request *pstRequest, void *pReplyCtx) {                                      \
        g_pcHandled = pstRequest != NULL && pReplyCtx != NULL ? #method : "a null argument";                           \
        return 0;                                                                                                      \
    }                                                                                                                  \
    void method##_free(Tarn_sys_diag_##response *pstResponse) {                                                        \
        g_uiReleased += pstResponse == NULL;                                                                           \
    }
#define HANDLE_NO_REPLY(method, request)                                                                               \
    uint32_t method(const Tarn_sys_diag_##request *pstRequest) {                                                       \
        g_pcHandled = pstRequest != NULL ? #method : "a null argument";                                                \
        return 0;                                                                                                      \
    }

#define TARN_METHOD HANDLE
#define TARN_METHOD_NO_REPLY HANDLE_NO_REPLY
#include "tarn_sysdiag/server/tarnd_methods.h"

#define TARN_METHOD HANDLE
#define TARN_METHOD_NO_REPLY HANDLE_NO_REPLY
#include "tarn_sysdiag/server/tarnd_agent_methods.h"

/* The runtime. */

uint32_t g_uiMoraModuleId = 1;

static const uint8_t EMPTY_MESSAGE[] = {8, 0, 0, 0, 4, 0, 4, 0, 4, 0, 0, 0};
static IdlServerCodecTable g_stKept;
static uint64_t g_aullLargeRecord[128];

int memcpy_s(void *pDest, size_t uiDestSize, const void *pSource, size_t uiCount) {
    if (uiCount > uiDestSize) {
        return 34;
    }
    memcpy(pDest, pSource, uiCount);
    return 0;
}

int memset_s(void *pDest, size_t uiDestSize, int iValue, size_t uiCount) {
    if (uiCount > uiDestSize) {
        return 34;
    }
    memset(pDest, iValue, uiCount);
    return 0;
}

void *RPC_IdlReqVeltoMsgUnPack(void *pRequest, void *pRecord, const IdlServerCodecTable *pstCodec) {
    return pRequest == NULL ? NULL : pstCodec->stCodec.pfnUnpack(EMPTY_MESSAGE, sizeof EMPTY_MESSAGE, pRecord);
}

IdlServerCodecTable *RPC_GetUsrFuncLib(void *pRecord) {
    return pRecord == NULL ? NULL : &g_stKept;
}

void *RPC_IdlMsgNew(uint32_t uiSize, uint32_t uiZero) {
    return uiZero == 0 && uiSize <= sizeof g_aullLargeRecord ? g_aullLargeRecord : NULL;
}

void RPC_IdlMsgFree(void *pRecord, uint32_t uiZero) {
    (void)pRecord;
    (void)uiZero;
}

/* No remote service is known here. */

void *RPC_GetRpcInvoke(IdlServerAddr *pstAddr, void *pInvokeCtx) {
    (void)pstAddr;
    (void)pInvokeCtx;
    return NULL;
}

void *RPC_IdlMsgCreate(uint32_t uiSize, uint32_t uiModuleId, const char *pcTag) {
    (void)uiSize;
    (void)uiModuleId;
    (void)pcTag;
    return NULL;
}

void RPC_IdlMsgDestroy(void *pMsg, uint32_t uiModuleId, const char *pcTag) {
    (void)pMsg;
    (void)uiModuleId;
    (void)pcTag;
}

void RPC_IdlMsgSyncCall(IdlCallResult *pstResult, void *pInvoker, const void *pReq, void *pResp,
                        const IdlMethodName *pstMethod, const IdlCodecTable *pstCodec) {
    (void)pstResult;
    (void)pInvoker;
    (void)pReq;
    (void)pResp;
    (void)pstMethod;
    (void)pstCodec;
}

uint32_t RPC_IdlMsgAsyncCall(const IdlAsyncCtx *pstCtx) {
    (void)pstCtx;
    return 0;
}

uint32_t RPC_IdlMsgOnewayCall(void *pInvoker, const void *pReq, const IdlMethodName *pstMethod,
                              const IdlCodecTable *pstCodec) {
    (void)pInvoker;
    (void)pReq;
    (void)pstMethod;
    (void)pstCodec;
    return 0;
}

/* Dispatches to every method of a service; returns how many did not reach their handler. */
static unsigned Serve(const IdlModuleSpec *pstSpec) {
    unsigned uiFailed = 0;
    uint32_t i;
    int iRequest, iReplyCtx;
    for (i = 1; i < pstSpec->uiInterfaceNum; ++i) {
        const IdlInterfaceEntry *pstEntry = &pstSpec->pstInterfaces[i];
        IdlServerCodecTable stCodec;
        uint32_t uiStatus;
        memset(&stCodec, 0, sizeof stCodec);
        g_pcHandled = "nothing";
        uiStatus = pstEntry->pfnWrapper(&iRequest, &iReplyCtx, &stCodec);
        if (uiStatus != 0 || strcmp(g_pcHandled, pstEntry->acMethod) != 0) {
            printf("%s: %s was called instead\n", pstEntry->acMethod, g_pcHandled);
            ++uiFailed;
        }
        if (g_stKept.stCodec.pfnUsrFree != NULL) {
            g_stKept.stCodec.pfnUsrFree(NULL);
        }
    }
    printf("%s: %u methods\n", pstSpec->acService, pstSpec->uiInterfaceNum - 1);
    return uiFailed;
}

/* The methods that are answered. */
#define TARN_METHOD(method, request, response) +1
#define TARN_METHOD_NO_REPLY(method, request)
static const unsigned ANSWERED = 0
#include "tarn_sysdiag/server/tarnd_methods.h"
#define TARN_METHOD(method, request, response) +1
#define TARN_METHOD_NO_REPLY(method, request)
#include "tarn_sysdiag/server/tarnd_agent_methods.h"
    ;

int main(void) {
    const unsigned uiFailed = Serve(&__module_spec_TarnSysdiagTarnd) + Serve(&__module_spec_TarnSysdiagTarndAgent);
    if (g_uiReleased != ANSWERED) {
        printf("%u releases, and not %u\n", g_uiReleased, ANSWERED);
    }
    return uiFailed != 0 || g_uiReleased != ANSWERED;
}
