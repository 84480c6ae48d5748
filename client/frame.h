// The call frame: what every proxy does, in each of its variants. The order of the runtime's calls is a contract: the
// invoker is asked for even by a call whose arguments are refused.
#pragma once

#include "tarn_sysdiag/platform/rpc.h"
#include "tarn_sysdiag/platform/securec.h"
#include "velto/codec.h"

namespace client {

// What the variants of one method share. The tag that each passes on is the exported function's own name.
struct Proxy {
    IdlServerAddr *service;
    const IdlMethodName *method;
    IdlCodecTable codec;
    uint16_t requestSize;  // native, in bytes
    uint16_t responseSize; // 0 too where there is no reply
};

// A method's codec table; Response is void where there is no reply.
template <class Unit, class Request, class Response>
constexpr IdlCodecTable CodecOf() {
    using Out = velto::Codec<Unit, Request>;
    IdlCodecTable table{};
    table.pfnPack = Out::kPack;
    if constexpr (velto::kHasFixed<Request>) {
        table.pfnFixedPack = Out::kPackFixed;
        table.pfnFixedSize = Out::kFixedSize;
    }
    if constexpr (!std::is_void_v<Response>) {
        using In = velto::Codec<Unit, Response>;
        table.pfnUnpack = In::kUnpack;
        table.pfnFreeUnpacked = In::kFreeUnpacked;
    }
    return table;
}

// What the runtime is told about a call besides its messages. It lives in the frame of the call.
struct Frame {
    IdlMethodName name;
    IdlCodecTable codec;
};

// The part that all variants share. Returns the invoker.
inline void *Enter(const Proxy &proxy, void *invokeCtx, Frame &frame) {
    frame.name = *proxy.method;
    void *const invoker = RPC_GetRpcInvoke(proxy.service, invokeCtx);
    frame.codec = proxy.codec;
    return invoker;
}

inline void *CreateMessage(uint32_t size, const char *tag) {
    return RPC_IdlMsgCreate(size, g_uiMoraModuleId, tag);
}

inline void DestroyMessage(void *message, const char *tag) {
    RPC_IdlMsgDestroy(message, g_uiMoraModuleId, tag);
}

inline void CopyRequest(const Proxy &proxy, const void *in, void *message) {
    memcpy_s(message, proxy.requestSize, in, proxy.requestSize);
}

VELTO_FRAME IdlCallResult CallWithReply(const void *in, void *out, void *invokeCtx, const Proxy &proxy) {
    Frame frame;
    void *const invoker = Enter(proxy, invokeCtx, frame);
    if (in == nullptr || invoker == nullptr || out == nullptr) {
        return {0, platform::kInvalid};
    }
    IdlCallResult result{};
    RPC_IdlMsgSyncCall(&result, invoker, in, out, &frame.name, &frame.codec);
    return result;
}

VELTO_FRAME IdlCallResult CallNoReply(const void *in, void *invokeCtx, const Proxy &proxy, const char *tag) {
    Frame frame;
    void *const invoker = Enter(proxy, invokeCtx, frame);
    if (invoker == nullptr || in == nullptr) {
        return {0, platform::kInvalid};
    }
    void *const message = CreateMessage(proxy.requestSize, tag);
    if (message == nullptr) {
        return {0, platform::kNoMemory};
    }
    CopyRequest(proxy, in, message);
    IdlCallResult result{};
    RPC_IdlMsgSyncCall(&result, invoker, message, nullptr, &frame.name, &frame.codec);
    DestroyMessage(message, tag);
    return result;
}

// Fills what is known of an asynchronous call from the start: no register has to keep it across the runtime's calls.
// The frame is only pointed at.
inline void SetContext(IdlAsyncCtx &context, Frame &frame, IdlAsyncCallback callback, void *user) {
    context.pfnCallback = callback;
    context.pUserData = user;
    context.pstMethod = &frame.name;
    context.pstCodec = &frame.codec;
    for (uintptr_t &word : context.auiReserved) {
        word = 0;
    }
}

// Hands a call to the runtime, which owns the messages from here on. What it answers is not the caller's to see: the
// callback is.
inline uint32_t Start(const IdlAsyncCtx &context) {
    RPC_IdlMsgAsyncCall(&context);
    return 0;
}

VELTO_FRAME uint32_t StartWithReply(const void *in, IdlAsyncCallback callback, void *user, void *invokeCtx,
                                    const Proxy &proxy, const char *tag) {
    Frame frame;
    IdlAsyncCtx context;
    SetContext(context, frame, callback, user);
    const void *const record = callback == nullptr ? nullptr : in; // one is refused like the other
    context.pInvoker = Enter(proxy, invokeCtx, frame);
    if (record == nullptr || context.pInvoker == nullptr) {
        return platform::kInvalid;
    }
    context.pReqMsg = CreateMessage(proxy.requestSize, tag);
    if (context.pReqMsg == nullptr) {
        return platform::kNoMemory;
    }
    context.pRespMsg = CreateMessage(proxy.responseSize, tag);
    if (context.pRespMsg == nullptr) {
        DestroyMessage(context.pReqMsg, tag);
        return platform::kNoMemory;
    }
    memset_s(context.pRespMsg, proxy.responseSize, 0, proxy.responseSize);
    CopyRequest(proxy, record, context.pReqMsg);
    return Start(context);
}

VELTO_FRAME uint32_t CallOneway(const void *in, void *invokeCtx, const Proxy &proxy) {
    Frame frame;
    void *const invoker = Enter(proxy, invokeCtx, frame);
    if (invoker == nullptr || in == nullptr) {
        return platform::kInvalid;
    }
    return RPC_IdlMsgOnewayCall(invoker, in, &frame.name, &frame.codec);
}

// Takes a callback: without one, the call is the one-way call.
VELTO_FRAME uint32_t StartNoReply(const void *in, IdlAsyncCallback callback, void *user, void *invokeCtx,
                                  const Proxy &proxy, const char *tag) {
    Frame frame;
    IdlAsyncCtx context;
    SetContext(context, frame, callback, user);
    context.pInvoker = Enter(proxy, invokeCtx, frame);
    if (context.pInvoker == nullptr || in == nullptr) {
        return platform::kInvalid;
    }
    context.pReqMsg = CreateMessage(proxy.requestSize, tag);
    if (context.pReqMsg == nullptr) {
        return platform::kNoMemory;
    }
    CopyRequest(proxy, in, context.pReqMsg);
    context.pRespMsg = nullptr;
    return Start(context);
}

} // namespace client

// The exported functions of a method. `methodNames` is the unit's table of name pairs, `kIndex_<method>` a place in it.
#define TARN_DEFINE_PROXY(service, name, request, response)                                                            \
    static constexpr client::Proxy kProxy_##name = {                                                                   \
        &g_stServerAddr_##service, &methodNames[kIndex_##name],                                                        \
        client::CodecOf<Unit, Tarn_sys_diag_##request, Tarn_sys_diag_##response>(),                                    \
        velto::kNativeSize<Tarn_sys_diag_##request>, velto::kNativeSize<Tarn_sys_diag_##response>};                    \
    void service##_##name##SetIdl(IdlCodecTable *codec) {                                                              \
        *codec = kProxy_##name.codec;                                                                                  \
    }                                                                                                                  \
    IdlCallResult service##_##name(const Tarn_sys_diag_##request *in, Tarn_sys_diag_##response *out, void *ctx) {      \
        return client::CallWithReply(in, out, ctx, kProxy_##name);                                                     \
    }                                                                                                                  \
    uint32_t service##_##name##_async(const Tarn_sys_diag_##request *in, IdlAsyncCallback callback, void *user,        \
                                      void *ctx) {                                                                     \
        return client::StartWithReply(in, callback, user, ctx, kProxy_##name, #service "_" #name "_async");            \
    }

#define TARN_DEFINE_PROXY_NO_REPLY(service, name, request)                                                             \
    static constexpr client::Proxy kProxy_##name = {&g_stServerAddr_##service, &methodNames[kIndex_##name],            \
                                                    client::CodecOf<Unit, Tarn_sys_diag_##request, void>(),            \
                                                    velto::kNativeSize<Tarn_sys_diag_##request>, 0};                   \
    void service##_##name##SetIdl(IdlCodecTable *codec) {                                                              \
        *codec = kProxy_##name.codec;                                                                                  \
    }                                                                                                                  \
    IdlCallResult service##_##name(const Tarn_sys_diag_##request *in, void *ctx) {                                     \
        return client::CallNoReply(in, ctx, kProxy_##name, #service "_" #name);                                        \
    }                                                                                                                  \
    uint32_t service##_##name##_oneway(const Tarn_sys_diag_##request *in, void *ctx) {                                 \
        return client::CallOneway(in, ctx, kProxy_##name);                                                             \
    }                                                                                                                  \
    uint32_t service##_##name##_async(const Tarn_sys_diag_##request *in, IdlAsyncCallback callback, void *user,        \
                                      void *ctx) {                                                                     \
        return callback == nullptr                                                                                     \
                   ? service##_##name##_oneway(in, ctx)                                                                \
                   : client::StartNoReply(in, callback, user, ctx, kProxy_##name, #service "_" #name "_async");        \
    }
