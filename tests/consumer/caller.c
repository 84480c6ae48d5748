/*
 * A program that only calls, on a runtime of its own that is just large enough to see a message off: what it links
 * against is the proxies, and no handler is there. Its own header has the name of one of the library's.
 */
#include <stdio.h>
#include <string.h>

#include "types/common.h"

#include <tarn_sysdiag/client/agent.h>
#include <tarn_sysdiag/client/master.h>
#include <tarn_sysdiag/platform/osal.h>
#include <tarn_sysdiag/platform/securec.h>

uint32_t g_uiMoraModuleId = 1;

static int g_iInvoker;
static int g_iSent;
static int g_iLogged;

/* Of the OS layer: found by the library where the program exports it. */
void XRT_OsalLogWrite(const XrtLogModule *pstModule, uint32_t uiLevel, uint32_t uiErrCode, const char *pcFile,
                      uint32_t uiLine, const char *pcFunction, const char *pcFormat, ...) {
    (void)pstModule, (void)uiLevel, (void)uiErrCode, (void)pcFile, (void)uiLine, (void)pcFunction, (void)pcFormat;
    ++g_iLogged;
}

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

void *RPC_GetRpcInvoke(IdlServerAddr *pstAddr, void *pInvokeCtx) {
    (void)pInvokeCtx;
    return strcmp(pstAddr->pcService, "TarnSysdiagAgent") == 0 ? &g_iInvoker : NULL;
}

uint32_t RPC_IdlMsgOnewayCall(void *pInvoker, const void *pReq, const IdlMethodName *pstMethod,
                              const IdlCodecTable *pstCodec) {
    static const char acGreeting[] = CONSUMER_GREETING;
    uint8_t aucMessage[256];
    uint32_t uiRoom = sizeof aucMessage, uiLen, i;
    const VeltoOutBuf stOut = {aucMessage, &uiRoom};
    if (pInvoker != &g_iInvoker || strcmp(pstMethod->pcMethod, "DBGCmdExecShow") != 0) {
        return 22;
    }
    uiLen = pstCodec->pfnPack(&stOut, pReq);
    for (i = 0; i + sizeof acGreeting <= uiLen; ++i) {
        g_iSent += memcmp(aucMessage + i, acGreeting, sizeof acGreeting) == 0;
    }
    return 0;
}

/* The other ways to call, which nobody goes here. */

void *RPC_IdlMsgCreate(uint32_t uiSize, uint32_t uiModuleId, const char *pcTag) {
    (void)uiSize, (void)uiModuleId, (void)pcTag;
    return NULL;
}

void RPC_IdlMsgDestroy(void *pMsg, uint32_t uiModuleId, const char *pcTag) {
    (void)pMsg, (void)uiModuleId, (void)pcTag;
}

void RPC_IdlMsgSyncCall(IdlCallResult *pstResult, void *pInvoker, const void *pReq, void *pResp,
                        const IdlMethodName *pstMethod, const IdlCodecTable *pstCodec) {
    (void)pstResult, (void)pInvoker, (void)pReq, (void)pResp, (void)pstMethod, (void)pstCodec;
}

uint32_t RPC_IdlMsgAsyncCall(const IdlAsyncCtx *pstCtx) {
    (void)pstCtx;
    return 0;
}

/* Has the library refuse a message, which it logs. */
static int RefusesGarbage(void) {
    static const uint8_t aucGarbage[] = {200, 0, 0, 0};
    Tarn_sys_diag_DiagResult stResult;
    IdlCodecTable stCodec;
    TarnSysdiagAgent_DBGCmdExecResultGetSetIdl(&stCodec);
    return stCodec.pfnUnpack(aucGarbage, sizeof aucGarbage, &stResult) == NULL;
}

int main(void) {
    static char acGreeting[] = CONSUMER_GREETING;
    const Tarn_sys_diag_DbgCmdShowInput stIn = {acGreeting};
    Tarn_sys_diag_DimTimeCfg stCfg;
    const uint32_t uiError = TarnSysdiagAgent_DBGCmdExecShow_oneway(&stIn, NULL);
    const IdlCallResult stUnknown = TarnSysdiagMaster_SysdiagGetDimCfgInfo(NULL, &stCfg, NULL);
    const int iRefuses = RefusesGarbage();
    printf("error %u, greetings sent %d, of an unknown service error %u, logged %d\n", (unsigned)uiError, g_iSent,
           (unsigned)stUnknown.uiErrCode, g_iLogged);
    return uiError != 0 || g_iSent != 1 || stUnknown.uiErrCode != 22 || !iRefuses;
}
