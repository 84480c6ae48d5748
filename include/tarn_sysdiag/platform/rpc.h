/*
 * What the library asks of the RPC runtime in its process, and the records that cross between the two. On the 32-bit
 * targets every word below is 4 bytes; on a 64-bit machine pointers and pointer-sized words widen.
 */
#ifndef TARN_PLATFORM_RPC_H
#define TARN_PLATFORM_RPC_H

#include <stdint.h>

#include "tarn_sysdiag/platform/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Where an encoder writes. The encoder reads the capacity and never writes it. */
typedef struct VeltoOutBuf {
    uint8_t *pucBuf;     /* destination */
    uint32_t *puiBufLen; /* capacity of the destination, in bytes */
} VeltoOutBuf;

/*
 * Writes a native record in the regular form. Returns the bytes written, or 0 after a bad argument; without an output
 * descriptor, the bytes that the record takes.
 */
typedef uint32_t (*VeltoPackFn)(const VeltoOutBuf *pstOut, const void *pRecord);

/*
 * Verifies a message and fills a native record from it. Returns the record, or null after a message that is refused,
 * which leaves nothing allocated. The length is compared as a signed number.
 */
typedef void *(*VeltoUnpackFn)(const uint8_t *pucBuf, uint32_t uiLen, void *pRecord);

/* Releases what a decoder allocated inside a record, and returns its argument. The record stays its owner's. */
typedef void *(*VeltoFreeFn)(void *pRecord);

/* The daemon's release of a response record that it handed to the runtime. */
typedef void (*IdlUsrFreeFn)(void *pRecord);

/* Writes a native record in the fixed form into a buffer of the size that its VeltoFixedSizeFn gives. Returns 0. */
typedef uint32_t (*VeltoFixedPackFn)(uint8_t *pucBuf, const void *pRecord);

/* The size of the buffer for the fixed form, in bytes, a multiple of 8. */
typedef uint32_t (*VeltoFixedSizeFn)(void);

/* Describes one method's exchange to the runtime. */
typedef struct IdlCodecTable {
    VeltoUnpackFn pfnUnpack;       /* 0: decoder of the incoming message; null where there is none */
    VeltoPackFn pfnPack;           /* 1: encoder of the outgoing message; null where there is none */
    VeltoFreeFn pfnFreeUnpacked;   /* 2: release of the response type; null for a method without reply */
    IdlUsrFreeFn pfnUsrFree;       /* 3: the daemon's release of its reply record; null on the client */
    VeltoFixedPackFn pfnFixedPack; /* 4: fixed-form writer of the outgoing message, or null */
    VeltoFixedSizeFn pfnFixedSize; /* 5: its buffer size, or null */
} IdlCodecTable;

/* The codec table that the runtime lends to a wrapper, and keeps with the request: one more word, its own. */
typedef struct IdlServerCodecTable {
    IdlCodecTable stCodec;
    void *pRuntimeWord; /* set by the runtime before the call; the wrapper copies it unchanged */
} IdlServerCodecTable;

/* Names the method of a client call. */
typedef struct IdlMethodName {
    const char *pcService;
    const char *pcMethod;
} IdlMethodName;

/* What a synchronous call returns. A proxy that fails before it calls returns {0, 22} or {0, 12}. */
typedef struct IdlCallResult {
    uint32_t uiStatus;
    uint32_t uiErrCode; /* errno value, 0 for success */
} IdlCallResult;

/*
 * Completion of an asynchronous call. The library stores it and never calls it; the runtime that does decides when,
 * on which thread, and with what. pResp is the native response record, valid during the callback, or null.
 */
typedef void (*IdlAsyncCallback)(const IdlCallResult *pstResult, void *pResp, void *pUserData);

/* An asynchronous call, as handed to RPC_IdlMsgAsyncCall. It lives in the proxy's frame: the runtime copies it. */
typedef struct IdlAsyncCtx {
    void *pInvoker;
    void *pReqMsg;
    void *pRespMsg; /* null for a method without reply */
    IdlAsyncCallback pfnCallback;
    void *pUserData;
    const IdlMethodName *pstMethod;
    const IdlCodecTable *pstCodec;
    uintptr_t auiReserved[3]; /* 0 */
} IdlAsyncCtx;

/* Identifies a remote service to the runtime, which owns the words before the name. */
typedef struct IdlServerAddr {
    uint32_t auiRuntime[13]; /* 0 at load */
    const char *pcService;
} IdlServerAddr;

/* One method of a served service. The entry's index is the method's number; entry 0 is reserved. */
typedef uint32_t (*IdlWrapperFn)(void *pRequest, void *pReplyCtx, IdlServerCodecTable *pstCodec);

typedef struct IdlInterfaceEntry {
    uint32_t uiReservedFlag; /* 0xFFFFFFFF in entry 0, else 0 */
    IdlWrapperFn pfnWrapper;
    uint32_t uiRequestHash; /* type hash of the request type */
    uint32_t uiReserved;
    char acMethod[64]; /* NUL-padded */
} IdlInterfaceEntry;

/* One message of a served service: entry 0 is zero, then each method's request and, if it has one, its response. */
typedef struct IdlMessageEntry {
    uint32_t uiTypeHash;
    uint32_t auiReserved[3];
} IdlMessageEntry;

/* What a served service registers itself with. */
typedef struct IdlModuleSpec {
    char acService[32]; /* NUL-padded */
    uint32_t uiInterfaceNum;
    uint32_t uiMessageNum;
    const IdlInterfaceEntry *pstInterfaces;
    const IdlMessageEntry *pstMessages;
    uint32_t auiReserved[9];
} IdlModuleSpec;

/* The module id that the proxies' messages are accounted to. */
extern TARN_EXPORT uint32_t g_uiMoraModuleId;

/* Client side. An invoker is bound to a service; pInvokeCtx is the caller's, passed on unchanged. */
TARN_EXPORT void *RPC_GetRpcInvoke(IdlServerAddr *pstAddr, void *pInvokeCtx);
TARN_EXPORT void *RPC_IdlMsgCreate(uint32_t uiSize, uint32_t uiModuleId, const char *pcTag);
TARN_EXPORT void RPC_IdlMsgDestroy(void *pMsg, uint32_t uiModuleId, const char *pcTag);
TARN_EXPORT void RPC_IdlMsgSyncCall(IdlCallResult *pstResult, void *pInvoker, const void *pReq, void *pResp,
                                    const IdlMethodName *pstMethod, const IdlCodecTable *pstCodec);
TARN_EXPORT uint32_t RPC_IdlMsgAsyncCall(const IdlAsyncCtx *pstCtx);
TARN_EXPORT uint32_t RPC_IdlMsgOnewayCall(void *pInvoker, const void *pReq, const IdlMethodName *pstMethod,
                                          const IdlCodecTable *pstCodec);

/* Server side. */
TARN_EXPORT void *RPC_IdlReqVeltoMsgUnPack(void *pRequest, void *pRecord, const IdlServerCodecTable *pstCodec);
TARN_EXPORT IdlServerCodecTable *RPC_GetUsrFuncLib(void *pRecord);
TARN_EXPORT void *RPC_IdlMsgNew(uint32_t uiSize, uint32_t uiZero);
TARN_EXPORT void RPC_IdlMsgFree(void *pRecord, uint32_t uiZero);

#ifdef __cplusplus
}
#endif

#endif
