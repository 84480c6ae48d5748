// What the library's proxies and wrappers ask of the runtime, over Client and the OS layer's memory.
#include "tarn_sysdiag/platform/rpc.h"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <memory>

#include "host/runtime/catalogue.h"
#include "host/runtime/client.h"
#include "host/runtime/encode.h"
#include "host/runtime/last_error.h"
#include "host/runtime/outgoing.h"
#include "tarn_sysdiag/platform/osal.h"

uint32_t g_uiMoraModuleId = 20;

namespace host {
namespace {

struct Invoker {
    std::string_view service;
    uint32_t pid = 0;
    std::chrono::milliseconds timeout{0};
};

// Nobody gives an invoker back, so each thread has a ring of them: a proxy uses its invoker at once.
struct InvokerRing {
    std::array<Invoker, 64> invokers;
    size_t next = 0;
};

thread_local InvokerRing ring;
thread_local std::string lastError;
thread_local std::string explanation;

// What the thread may ask about a call that has ended.
void KeepTexts(CallOutcome &&outcome) {
    if (!outcome.Ok()) {
        lastError = std::move(outcome.text);
    }
    explanation = outcome.Ok() ? std::move(outcome.explanation) : "";
}

// Encodes the request of a proxy's call. False, and the reason, when it can't be sent.
bool Prepare(const void *invoker, const void *request, const IdlMethodName *name, const IdlCodecTable *codec,
             Bytes &bytes, CallRequest &call, CallOutcome &refused) {
    if (invoker == nullptr || request == nullptr || name == nullptr || codec == nullptr) {
        refused = Failure(EINVAL, "call without invoker, request, method name or codec table");
        return false;
    }
    const auto &to = *static_cast<const Invoker *>(invoker);
    const MethodInfo *const method = FindMethod(name->pcService, name->pcMethod);
    if (method == nullptr) {
        refused = Failure(ENOENT, fmt::format("{}.{}: no such method", name->pcService, name->pcMethod));
        return false;
    }
    const uint32_t error = Encode(*codec, request, 0, Client::Default().GetLimits().messageBytes, bytes);
    if (error != 0) {
        const char *const reason =
            error == EMSGSIZE ? "the request is larger than the limit on messages" : "the request can't be encoded";
        refused = Failure(error, fmt::format("{}.{}: {}", name->pcService, name->pcMethod, reason));
        return false;
    }
    call = {to.service, to.pid, method->method, method->requestHash, bytes, to.timeout, {}};
    return true;
}

// Decodes the reply of a successful call; a method without reply has no decoder.
void Decode(const IdlCodecTable &codec, const IdlMethodName &name, void *response, CallOutcome &outcome) {
    if (!outcome.Ok() || response == nullptr || codec.pfnUnpack == nullptr) {
        return;
    }
    outcome.bytes.reserve(1); // a decoder takes no null
    const uint32_t memory = Client::Default().GetLimits().decodedBytes;
    if (DecodeWithin(memory, codec, outcome.bytes.data(), outcome.bytes.size(), response) == nullptr) {
        outcome.errCode = EBADMSG;
        outcome.text = fmt::format("{}.{}: the reply of {} bytes is not a valid message", name.pcService, name.pcMethod,
                                   outcome.bytes.size());
    }
}

// An asynchronous call's own copy of what lay in the proxy's frame, and the messages, which are its to destroy.
class AsyncCall {
public:
    explicit AsyncCall(const IdlAsyncCtx &context)
        : context_(context), name_(context.pstMethod == nullptr ? IdlMethodName{} : *context.pstMethod),
          codec_(context.pstCodec == nullptr ? IdlCodecTable{} : *context.pstCodec) {}
    AsyncCall(const AsyncCall &) = delete;
    AsyncCall &operator=(const AsyncCall &) = delete;
    ~AsyncCall() {
        XRT_OsalMemFree(context_.pReqMsg, g_uiMoraModuleId, "RPC_IdlMsgAsyncCall");
        XRT_OsalMemFree(context_.pRespMsg, g_uiMoraModuleId, "RPC_IdlMsgAsyncCall");
    }

    void End(CallOutcome &&outcome) const {
        Decode(codec_, name_, context_.pRespMsg, outcome);
        const IdlCallResult result{outcome.status, outcome.errCode};
        void *const response = outcome.Ok() ? context_.pRespMsg : nullptr;
        KeepTexts(std::move(outcome));
        if (context_.pfnCallback != nullptr) {
            context_.pfnCallback(&result, response, context_.pUserData);
        }
        if (response != nullptr && codec_.pfnFreeUnpacked != nullptr) {
            codec_.pfnFreeUnpacked(response);
        }
    }

private:
    const IdlAsyncCtx context_;
    const IdlMethodName name_;
    const IdlCodecTable codec_;
};

} // namespace

void KeepLastError(std::string text) {
    lastError = std::move(text);
}

} // namespace host

const char *TarnHost_LastError() {
    return host::lastError.c_str();
}

const char *TarnHost_Explanation() {
    return host::explanation.c_str();
}

void *RPC_GetRpcInvoke(IdlServerAddr *pstAddr, void *pInvokeCtx) {
    if (pstAddr == nullptr || pstAddr->pcService == nullptr) {
        return nullptr;
    }
    const auto *const context = static_cast<const TarnHost_InvokeCtx *>(pInvokeCtx);
    const host::Invoker invoker = {pstAddr->pcService, context == nullptr ? 0 : context->uiPid,
                                   std::chrono::milliseconds(context == nullptr ? 0 : context->uiTimeout)};
    if (!host::Client::Default().Knows(invoker.service, invoker.pid)) {
        const std::string of = invoker.pid == 0 ? "" : fmt::format(" of process {}", invoker.pid);
        host::KeepTexts(
            host::Failure(ENOENT, fmt::format("{}{}: no socket of it in the run directory", invoker.service, of)));
        return nullptr;
    }
    host::InvokerRing &ring = host::ring;
    host::Invoker &place = ring.invokers[ring.next++ % ring.invokers.size()];
    place = invoker;
    return &place;
}

void *RPC_IdlMsgCreate(uint32_t uiSize, uint32_t uiModuleId, const char *pcTag) {
    return XRT_OsalMemCacheAlloc(uiSize, uiModuleId, pcTag);
}

void RPC_IdlMsgDestroy(void *pMsg, uint32_t uiModuleId, const char *pcTag) {
    XRT_OsalMemFree(pMsg, uiModuleId, pcTag);
}

void *RPC_IdlMsgNew(uint32_t uiSize, uint32_t) {
    return XRT_OsalMemCacheAlloc(uiSize, g_uiMoraModuleId, "RPC_IdlMsgNew");
}

void RPC_IdlMsgFree(void *pRecord, uint32_t) {
    XRT_OsalMemFree(pRecord, g_uiMoraModuleId, "RPC_IdlMsgFree");
}

void RPC_IdlMsgSyncCall(IdlCallResult *pstResult, void *pInvoker, const void *pReq, void *pResp,
                        const IdlMethodName *pstMethod, const IdlCodecTable *pstCodec) {
    if (pstResult == nullptr) {
        return;
    }
    host::Bytes bytes;
    host::CallRequest call;
    host::CallOutcome outcome;
    if (host::Prepare(pInvoker, pReq, pstMethod, pstCodec, bytes, call, outcome)) {
        outcome = host::Client::Default().Call(call);
        host::Decode(*pstCodec, *pstMethod, pResp, outcome);
    }
    *pstResult = {outcome.status, outcome.errCode};
    host::KeepTexts(std::move(outcome));
}

uint32_t RPC_IdlMsgAsyncCall(const IdlAsyncCtx *pstCtx) {
    if (pstCtx == nullptr) {
        return EINVAL;
    }
    const auto pending = std::make_shared<host::AsyncCall>(*pstCtx);
    host::Bytes bytes;
    host::CallRequest call;
    host::CallOutcome refused;
    const auto done = [pending](host::CallOutcome &&outcome) { pending->End(std::move(outcome)); };
    if (host::Prepare(pstCtx->pInvoker, pstCtx->pReqMsg, pstCtx->pstMethod, pstCtx->pstCodec, bytes, call, refused)) {
        host::Client::Default().CallAsync(call, done);
    } else {
        host::Client::Default().FailAsync(std::move(refused), done);
    }
    return 0;
}

uint32_t RPC_IdlMsgOnewayCall(void *pInvoker, const void *pReq, const IdlMethodName *pstMethod,
                              const IdlCodecTable *pstCodec) {
    host::Bytes bytes;
    host::CallRequest call;
    host::CallOutcome outcome;
    if (host::Prepare(pInvoker, pReq, pstMethod, pstCodec, bytes, call, outcome)) {
        outcome = host::Client::Default().Oneway(call);
    }
    const uint32_t error = outcome.errCode;
    host::KeepTexts(std::move(outcome));
    return error;
}
