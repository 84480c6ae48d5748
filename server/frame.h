// The dispatch frame: what every wrapper does, in each of its six shapes, and the tables that a service registers
// itself with.
#pragma once

#include <iterator>

#include "platform/rpc.h"
#include "platform/securec.h"
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
    constexpr bool kLarge = velto::kNativeSize < Request >> kCallBuffer;
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

// Fills the slots of a method's codec table. A method without reply has only the decoder of its request: the runtime
// left the other slots null, and they stay as they are.
template <class Unit, class Request, class Response>
void SetCodec(IdlCodecTable &codec, IdlUsrFreeFn usrFree) {
    codec.pfnUnpack = velto::Codec<Unit, Request>::kUnpack;
    if constexpr (!std::is_same_v<Response, NoReply>) {
        using Reply = velto::Codec<Unit, Response>;
        codec.pfnPack = Reply::kPack;
        codec.pfnFreeUnpacked = Reply::kFreeUnpacked;
        codec.pfnUsrFree = usrFree;
        codec.pfnFixedPack = velto::kHasFixed<Response> ? Reply::kPackFixed : nullptr;
        codec.pfnFixedSize = velto::kHasFixed<Response> ? Reply::kFixedSize : nullptr;
    }
}

// Keeps the codec table with the request, for the runtime to encode and release the reply with.
inline bool KeepCodec(void *record, const IdlServerCodecTable *codec) {
    return memcpy_s(RPC_GetUsrFuncLib(record), sizeof *codec, codec, sizeof *codec) == 0;
}

// Calls the daemon's implementation of a method, with the reply context if it takes one.
using CallFn = uint32_t (*)(const void *record, void *replyCtx);

// Decodes into the wrapper's own frame. `release` is null unless the request owns memory.
[[gnu::noinline]] inline uint32_t DispatchFromFrame(void *request, void *replyCtx, const IdlServerCodecTable *codec,
                                                    CallFn call, uint32_t size, VeltoFreeFn release) {
    alignas(8) uint8_t buffer[kCallBuffer];
    memset_s(buffer, size, 0, size);
    void *const record = RPC_IdlReqVeltoMsgUnPack(request, buffer, codec);
    if (record == nullptr) {
        return platform::kNoMemory;
    }
    const uint32_t status = KeepCodec(record, codec) ? call(record, replyCtx) : kNotKept;
    if (release != nullptr) {
        release(record);
    }
    return status;
}

// Decodes into a runtime message.
[[gnu::noinline]] inline uint32_t DispatchFromMessage(void *request, void *replyCtx, const IdlServerCodecTable *codec,
                                                      CallFn call, uint32_t size) {
    void *const message = RPC_IdlMsgNew(size, 0);
    if (message == nullptr) {
        return platform::kNoMemory;
    }
    memset_s(message, size, 0, size);
    void *const record = RPC_IdlReqVeltoMsgUnPack(request, message, codec);
    if (record == nullptr) {
        RPC_IdlMsgFree(message, 0);
        return platform::kNoMemory;
    }
    const uint32_t status = KeepCodec(record, codec) ? call(record, replyCtx) : kNotKept;
    RPC_IdlMsgFree(record, 0);
    return status;
}

template <class Unit, class Request, class Response>
uint32_t Dispatch(void *request, void *replyCtx, IdlServerCodecTable *codec, IdlUsrFreeFn usrFree, CallFn call) {
    constexpr uint32_t kSize = velto::kNativeSize<Request>;
    SetCodec<Unit, Request, Response>(codec->stCodec, usrFree);
    if constexpr (ShapeOf<Request, Response>() == Shape::kLargeRequest) {
        return DispatchFromMessage(request, replyCtx, codec, call, kSize);
    } else {
        constexpr VeltoFreeFn kRelease = velto::kOwns<Request> ? velto::Codec<Unit, Request>::kFreeUnpacked : nullptr;
        return DispatchFromFrame(request, replyCtx, codec, call, kSize, kRelease);
    }
}

} // namespace server

// A method's wrapper.
#define TARN_WRAPPER(method, request, response)                                                                        \
    uint32_t method##_wrapper(void *message, void *replyCtx, IdlServerCodecTable *codec) {                             \
        using Request = Tarn_sys_diag_##request;                                                                       \
        const auto usrFree = reinterpret_cast<IdlUsrFreeFn>(method##_free);                                            \
        const server::CallFn call = [](const void *record, void *ctx) {                                                \
            return method(static_cast<const Request *>(record), ctx);                                                  \
        };                                                                                                             \
        return server::Dispatch<Unit, Request, Tarn_sys_diag_##response>(message, replyCtx, codec, usrFree, call);     \
    }
#define TARN_WRAPPER_NO_REPLY(method, request)                                                                         \
    uint32_t method##_wrapper(void *message, void *, IdlServerCodecTable *codec) {                                     \
        using Request = Tarn_sys_diag_##request;                                                                       \
        const server::CallFn call = [](const void *record, void *) {                                                   \
            return method(static_cast<const Request *>(record));                                                       \
        };                                                                                                             \
        return server::Dispatch<Unit, Request, server::NoReply>(message, nullptr, codec, nullptr, call);               \
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
