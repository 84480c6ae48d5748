// The call frame: what every proxy does, in each of its variants. The order of the runtime's calls is a contract: the
// invoker is asked for and the codec table filled before any argument is looked at.
#pragma once

#include "platform/rpc.h"
#include "platform/securec.h"
#include "velto/codec.h"

namespace client {

using SetIdlFn = void (*)(IdlCodecTable *);

// What the variants of one method share. The tag that each passes on is the exported function's own name.
struct Proxy {
    IdlServerAddr *service;
    const IdlMethodName *method;
    SetIdlFn setIdl;
    uint16_t requestSize;  // native, in bytes
    uint16_t responseSize; // 0 too where there is no reply
};

template <class Unit, class Request>
void SetRequest(IdlCodecTable *table) {
    using Codec = velto::Codec<Unit, Request>;
    table->pfnPack = Codec::kPack;
    table->pfnUsrFree = nullptr;
    table->pfnFixedPack = velto::kHasFixed<Request> ? Codec::kPackFixed : nullptr;
    table->pfnFixedSize = velto::kHasFixed<Request> ? Codec::kFixedSize : nullptr;
}

template <class Unit, class Request, class Response>
void SetIdl(IdlCodecTable *table) {
    using Codec = velto::Codec<Unit, Response>;
    SetRequest<Unit, Request>(table);
    table->pfnUnpack = Codec::kUnpack;
    table->pfnFreeUnpacked = Codec::kFreeUnpacked;
}

template <class Unit, class Request>
void SetIdlNoReply(IdlCodecTable *table) {
    SetRequest<Unit, Request>(table);
    table->pfnUnpack = nullptr;
    table->pfnFreeUnpacked = nullptr;
}

// The part that all variants share. Name pair and codec table live in the frame of the call.
struct Frame {
    Frame(const Proxy &proxy, void *invokeCtx)
        : name(*proxy.method), invoker(RPC_GetRpcInvoke(proxy.service, invokeCtx)) {
        proxy.setIdl(&codec);
    }
    const IdlMethodName name;
    void *const invoker;
    IdlCodecTable codec;
};

inline void *CreateMessage(uint32_t size, const char *tag) {
    return RPC_IdlMsgCreate(size, g_uiMoraModuleId, tag);
}

inline void DestroyMessage(void *message, const char *tag) {
    RPC_IdlMsgDestroy(message, g_uiMoraModuleId, tag);
}

inline void *CopyRequest(const Proxy &proxy, const void *in, const char *tag) {
    void *const message = CreateMessage(proxy.requestSize, tag);
    if (message != nullptr) {
        memcpy_s(message, proxy.requestSize, in, proxy.requestSize);
    }
    return message;
}

[[gnu::noinline]] inline IdlCallResult CallWithReply(const Proxy &proxy, const void *in, void *out, void *invokeCtx) {
    Frame frame(proxy, invokeCtx);
    if (in == nullptr || out == nullptr || frame.invoker == nullptr) {
        return {0, platform::kInvalid};
    }
    IdlCallResult result{};
    RPC_IdlMsgSyncCall(&result, frame.invoker, in, out, &frame.name, &frame.codec);
    return result;
}

[[gnu::noinline]] inline IdlCallResult CallNoReply(const Proxy &proxy, const void *in, void *invokeCtx,
                                                   const char *tag) {
    Frame frame(proxy, invokeCtx);
    if (frame.invoker == nullptr || in == nullptr) {
        return {0, platform::kInvalid};
    }
    void *const message = CopyRequest(proxy, in, tag);
    if (message == nullptr) {
        return {0, platform::kNoMemory};
    }
    IdlCallResult result{};
    RPC_IdlMsgSyncCall(&result, frame.invoker, message, nullptr, &frame.name, &frame.codec);
    DestroyMessage(message, tag);
    return result;
}

// Hands a call to the runtime, which owns the messages from here on. What it answers is not the caller's to see: the
// callback is.
inline uint32_t Start(const Frame &frame, void *request, void *response, IdlAsyncCallback callback, void *user) {
    IdlAsyncCtx context{};
    context.pInvoker = frame.invoker;
    context.pReqMsg = request;
    context.pRespMsg = response;
    context.pfnCallback = callback;
    context.pUserData = user;
    context.pstMethod = &frame.name;
    context.pstCodec = &frame.codec;
    RPC_IdlMsgAsyncCall(&context);
    return 0;
}

[[gnu::noinline]] inline uint32_t StartWithReply(const Proxy &proxy, const void *in, IdlAsyncCallback callback,
                                                 void *user, void *invokeCtx, const char *tag) {
    Frame frame(proxy, invokeCtx);
    if (callback == nullptr || in == nullptr || frame.invoker == nullptr) {
        return platform::kInvalid;
    }
    void *const request = CreateMessage(proxy.requestSize, tag);
    if (request == nullptr) {
        return platform::kNoMemory;
    }
    void *const response = CreateMessage(proxy.responseSize, tag);
    if (response == nullptr) {
        DestroyMessage(request, tag);
        return platform::kNoMemory;
    }
    memset_s(response, proxy.responseSize, 0, proxy.responseSize);
    memcpy_s(request, proxy.requestSize, in, proxy.requestSize);
    return Start(frame, request, response, callback, user);
}

inline uint32_t SendOneway(const Frame &frame, const void *in) {
    return RPC_IdlMsgOnewayCall(frame.invoker, in, &frame.name, &frame.codec);
}

[[gnu::noinline]] inline uint32_t StartNoReply(const Proxy &proxy, const void *in, IdlAsyncCallback callback,
                                               void *user, void *invokeCtx, const char *tag) {
    Frame frame(proxy, invokeCtx);
    if (frame.invoker == nullptr || in == nullptr) {
        return platform::kInvalid;
    }
    if (callback == nullptr) {
        return SendOneway(frame, in);
    }
    void *const request = CopyRequest(proxy, in, tag);
    return request == nullptr ? platform::kNoMemory : Start(frame, request, nullptr, callback, user);
}

[[gnu::noinline]] inline uint32_t CallOneway(const Proxy &proxy, const void *in, void *invokeCtx) {
    Frame frame(proxy, invokeCtx);
    return in == nullptr || frame.invoker == nullptr ? platform::kInvalid : SendOneway(frame, in);
}

} // namespace client

// The exported functions of a method. `methodNames` is the unit's table of name pairs, `kIndex_<method>` a place in it.
#define TARN_DEFINE_PROXY(service, name, request, response)                                                            \
    static constexpr client::Proxy kProxy_##name = {                                                                   \
        &g_stServerAddr_##service, &methodNames[kIndex_##name], service##_##name##SetIdl,                              \
        velto::kNativeSize<Tarn_sys_diag_##request>, velto::kNativeSize<Tarn_sys_diag_##response>};                    \
    void service##_##name##SetIdl(IdlCodecTable *codec) {                                                              \
        client::SetIdl<Unit, Tarn_sys_diag_##request, Tarn_sys_diag_##response>(codec);                                \
    }                                                                                                                  \
    IdlCallResult service##_##name(const Tarn_sys_diag_##request *in, Tarn_sys_diag_##response *out, void *ctx) {      \
        return client::CallWithReply(kProxy_##name, in, out, ctx);                                                     \
    }                                                                                                                  \
    uint32_t service##_##name##_async(const Tarn_sys_diag_##request *in, IdlAsyncCallback callback, void *user,        \
                                      void *ctx) {                                                                     \
        return client::StartWithReply(kProxy_##name, in, callback, user, ctx, #service "_" #name "_async");            \
    }

#define TARN_DEFINE_PROXY_NO_REPLY(service, name, request)                                                             \
    static constexpr client::Proxy kProxy_##name = {&g_stServerAddr_##service, &methodNames[kIndex_##name],            \
                                                    service##_##name##SetIdl,                                          \
                                                    velto::kNativeSize<Tarn_sys_diag_##request>, 0};                   \
    void service##_##name##SetIdl(IdlCodecTable *codec) {                                                              \
        client::SetIdlNoReply<Unit, Tarn_sys_diag_##request>(codec);                                                   \
    }                                                                                                                  \
    IdlCallResult service##_##name(const Tarn_sys_diag_##request *in, void *ctx) {                                     \
        return client::CallNoReply(kProxy_##name, in, ctx, #service "_" #name);                                        \
    }                                                                                                                  \
    uint32_t service##_##name##_async(const Tarn_sys_diag_##request *in, IdlAsyncCallback callback, void *user,        \
                                      void *ctx) {                                                                     \
        return client::StartNoReply(kProxy_##name, in, callback, user, ctx, #service "_" #name "_async");              \
    }                                                                                                                  \
    uint32_t service##_##name##_oneway(const Tarn_sys_diag_##request *in, void *ctx) {                                 \
        return client::CallOneway(kProxy_##name, in, ctx);                                                             \
    }
