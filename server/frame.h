// The dispatch frame: what every wrapper does, in each of its six shapes, and the tables that a service registers
// itself with.
#pragma once

#include <iterator>

#include "tarn_sysdiag/platform/rpc.h"
#include "tarn_sysdiag/platform/securec.h"
#include "velto/codec.h"

namespace server {

// Stands for the response type of a method without reply.
struct NoReply;

// A request record up to this size is decoded into the wrapper's own frame, a larger one into a runtime message.
constexpr uint32_t kCallBuffer = 256;

// The wrapper could not keep the codec table with the request.
constexpr uint32_t kNotKept = 1;

enum class Shape { kFixedReply, kVariableReply, kOwningRequest, kLargeRequest, kOneway, kOnewayOwningRequest };

template <class Request, class Response>
constexpr Shape ShapeOf() {
    constexpr bool kReplies = !std::is_same_v<Response, NoReply>;
    constexpr uint32_t kRequestSize = velto::kNativeSize<Request>;
    constexpr bool kLarge = kRequestSize > kCallBuffer;
    static_assert(!kLarge || (kReplies && !velto::kOwns<Request>), "no such shape: a large request that owns memory, "
                                                                   "or has no reply");
    if constexpr (kLarge) {
        return Shape::kLargeRequest;
    } else if constexpr (!kReplies) {
        return velto::kOwns<Request> ? Shape::kOnewayOwningRequest : Shape::kOneway;
    } else if constexpr (velto::kOwns<Request>) {
        return Shape::kOwningRequest;
    } else {
        return velto::kHasFixed<Response> ? Shape::kFixedReply : Shape::kVariableReply;
    }
}

// Calls the daemon's implementation of a method, with the reply context if it takes one.
using CallFn = uint32_t (*)(const void *record, void *replyCtx);

// What wrappers differ in.
struct Method {
    IdlCodecTable codec;
    CallFn call;
    VeltoFreeFn release; // null unless the request owns memory
    uint32_t requestSize;
};

// A method's codec table, but for the daemon's release of its reply, whose cast is no constant expression.
template <class Unit, class Request, class Response>
constexpr IdlCodecTable CodecOf() {
    IdlCodecTable table{};
    table.pfnUnpack = velto::Codec<Unit, Request>::kUnpack;
    if constexpr (!std::is_same_v<Response, NoReply>) {
        using Out = velto::Codec<Unit, Response>;
        table.pfnPack = Out::kPack;
        table.pfnFreeUnpacked = Out::kFreeUnpacked;
        if constexpr (velto::kHasFixed<Response>) {
            table.pfnFixedPack = Out::kPackFixed;
            table.pfnFixedSize = Out::kFixedSize;
        }
    }
    return table;
}

template <class Unit, class Request>
constexpr VeltoFreeFn kRelease = velto::kOwns<Request> ? velto::Codec<Unit, Request>::kFreeUnpacked : nullptr;

// Fills the slots of a method's codec table. A method without reply has only the decoder of its request: the runtime
// left the other slots null, and they stay as they are.
inline void SetCodec(IdlCodecTable &codec, const Method &method) {
    if (method.codec.pfnPack != nullptr) {
        codec = method.codec;
    } else {
        codec.pfnUnpack = method.codec.pfnUnpack;
    }
}

// Keeps the codec table with the request, for the runtime to encode and release the reply with, and calls the method.
inline uint32_t KeepAndCall(const Method &method, void *record, void *replyCtx, const IdlServerCodecTable *codec) {
    const int error = memcpy_s(RPC_GetUsrFuncLib(record), sizeof *codec, codec, sizeof *codec);
    return velto::Expected(error == 0) ? method.call(record, replyCtx) : kNotKept;
}

// Decodes into the wrapper's own frame. Here and in proxies, what a caller gave comes first, in its order, and stays in
// the registers that it came in.
VELTO_FRAME uint32_t DispatchFromFrame(void *request, void *replyCtx, IdlServerCodecTable *codec,
                                       const Method &method) {
    SetCodec(codec->stCodec, method);
    alignas(8) uint8_t buffer[kCallBuffer];
    memset_s(buffer, method.requestSize, 0, method.requestSize);
    void *const record = RPC_IdlReqVeltoMsgUnPack(request, buffer, codec);
    if (record == nullptr) {
        return platform::kNoMemory;
    }
    const uint32_t status = KeepAndCall(method, record, replyCtx, codec);
    if (method.release != nullptr) {
        method.release(record);
    }
    return status;
}

// Decodes into a runtime message.
VELTO_FRAME uint32_t DispatchFromMessage(void *request, void *replyCtx, IdlServerCodecTable *codec,
                                         const Method &method) {
    SetCodec(codec->stCodec, method);
    void *const message = RPC_IdlMsgNew(method.requestSize, 0);
    if (message == nullptr) {
        return platform::kNoMemory;
    }
    memset_s(message, method.requestSize, 0, method.requestSize);
    void *const record = RPC_IdlReqVeltoMsgUnPack(request, message, codec);
    if (record == nullptr) {
        RPC_IdlMsgFree(message, 0);
        return platform::kNoMemory;
    }
    const uint32_t status = KeepAndCall(method, record, replyCtx, codec);
    RPC_IdlMsgFree(record, 0);
    return status;
}

template <Shape kShape>
[[gnu::always_inline]] inline uint32_t Dispatch(void *request, void *replyCtx, IdlServerCodecTable *codec,
                                                const Method &method) {
    return kShape == Shape::kLargeRequest ? DispatchFromMessage(request, replyCtx, codec, method)
                                          : DispatchFromFrame(request, replyCtx, codec, method);
}

} // namespace server

// A method's wrapper.
#define TARN_WRAPPER(method, request, response)                                                                        \
    TARN_DEFINE_WRAPPER(method, Tarn_sys_diag_##request, Tarn_sys_diag_##response,                                     \
                        reinterpret_cast<IdlUsrFreeFn>(method##_free), method(record, ctx))
#define TARN_WRAPPER_NO_REPLY(method, request)                                                                         \
    TARN_DEFINE_WRAPPER(method, Tarn_sys_diag_##request, server::NoReply, nullptr, method(record))
#define TARN_DEFINE_WRAPPER(method, Request, Response, usrFree, calling)                                               \
    static uint32_t method##_call(const void *in, [[maybe_unused]] void *ctx) {                                        \
        const auto *const record = static_cast<const Request *>(in);                                                   \
        return calling;                                                                                                \
    }                                                                                                                  \
    static constexpr IdlCodecTable kCodec_##method = server::CodecOf<Unit, Request, Response>();                       \
    static const server::Method kMethod_##method = {{kCodec_##method.pfnUnpack, kCodec_##method.pfnPack,               \
                                                     kCodec_##method.pfnFreeUnpacked, usrFree,                         \
                                                     kCodec_##method.pfnFixedPack, kCodec_##method.pfnFixedSize},      \
                                                    method##_call,                                                     \
                                                    server::kRelease<Unit, Request>,                                   \
                                                    velto::kNativeSize<Request>};                                      \
    uint32_t method##_wrapper(void *message, void *ctx, IdlServerCodecTable *codec) {                                  \
        return server::Dispatch<server::ShapeOf<Request, Response>()>(message, ctx, codec, kMethod_##method);          \
    }

// A method's entry in the interface table, and its entries in the message table, which names a type once for each use.
#define TARN_INTERFACE_ENTRY(method, request, response) TARN_INTERFACE_ENTRY_NO_REPLY(method, request)
#define TARN_INTERFACE_ENTRY_NO_REPLY(method, request)                                                                 \
    {0, method##_wrapper, velto::kTypeHash<Tarn_sys_diag_##request>, 0, #method},
#define TARN_MESSAGE_ENTRIES(method, request, response)                                                                \
    TARN_MESSAGE_ENTRIES_NO_REPLY(method, request){velto::kTypeHash<Tarn_sys_diag_##response>, {}},
#define TARN_MESSAGE_ENTRIES_NO_REPLY(method, request) {velto::kTypeHash<Tarn_sys_diag_##request>, {}},

// Entry 0 of the tables is reserved: methods count from 1.
#define TARN_RESERVED_INTERFACE_ENTRY                                                                                  \
    { 0xFFFFFFFF, nullptr, 0, 0, "" }
#define TARN_RESERVED_MESSAGE_ENTRY                                                                                    \
    {}
#define TARN_MODULE_SPEC(service) TARN_MODULE_SPEC_(service)
#define TARN_MODULE_SPEC_(service)                                                                                     \
    {                                                                                                                  \
#service, std::size(intf_tbl_##service), std::size(msgdesc_tbl_##service), intf_tbl_##service,                 \
            msgdesc_tbl_##service, {}                                                                                  \
    }

#define TARN_JOIN(a, b) TARN_JOIN_(a, b)
#define TARN_JOIN_(a, b) a##b
