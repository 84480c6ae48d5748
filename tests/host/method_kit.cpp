#include "tests/host/method_kit.h"

#include <cerrno>

#include "tarn_sysdiag/host/reply.h"

namespace {

thread_local kit::ReplyContext *running = nullptr;

kit::ReplyContext *ContextOf(void *replyCtx) {
    return replyCtx == nullptr ? running : static_cast<kit::ReplyContext *>(replyCtx);
}

uint32_t Take(void *replyCtx, void *record, uint32_t status) {
    auto &context = *static_cast<kit::ReplyContext *>(replyCtx);
    {
        const std::lock_guard lock(context.mutex);
        if (context.record != nullptr || context.status != 0) {
            return EALREADY;
        }
        context.record = record;
        context.status = status;
    }
    context.changed.notify_all();
    return 0;
}

} // namespace

namespace kit {

RunningMethod::RunningMethod(ReplyContext &context) {
    running = &context;
}

RunningMethod::~RunningMethod() {
    running = nullptr;
}

} // namespace kit

// The program's take the place of the runtime's.

uint32_t TarnHost_Reply(void *pReplyCtx, void *pResponse) {
    return pReplyCtx == nullptr || pResponse == nullptr ? EINVAL : Take(pReplyCtx, pResponse, 0);
}

uint32_t TarnHost_ReplyStatus(void *pReplyCtx, uint32_t uiStatus) {
    return pReplyCtx == nullptr || uiStatus == 0 ? EINVAL : Take(pReplyCtx, nullptr, uiStatus);
}

uint32_t TarnHost_ExplainReply(void *pReplyCtx, const char *pcReason) {
    kit::ReplyContext *const context = ContextOf(pReplyCtx);
    if (context == nullptr) {
        return EINVAL;
    }
    const std::lock_guard lock(context->mutex);
    context->reason = pcReason;
    return 0;
}

void TarnHost_Explain(const char *pcReason) {
    TarnHost_ExplainReply(nullptr, pcReason);
}

uint32_t TarnHost_Cancelled(void *pReplyCtx) {
    kit::ReplyContext *const context = ContextOf(pReplyCtx);
    if (context == nullptr) {
        return 0;
    }
    const std::lock_guard lock(context->mutex);
    return context->cancelled;
}

uint32_t TarnHost_PeerOf(void *pReplyCtx, TarnHost_Peer *pstPeer) {
    const kit::ReplyContext *const context = ContextOf(pReplyCtx);
    if (context == nullptr) {
        return EINVAL;
    }
    *pstPeer = context->peer;
    return 0;
}

uint32_t TarnHost_PeerLives(void *pReplyCtx) {
    const kit::ReplyContext *const context = ContextOf(pReplyCtx);
    return context != nullptr && context->peerLives ? 1 : 0;
}

uint32_t TarnHost_RemainingMs(void *pReplyCtx) {
    const kit::ReplyContext *const context = ContextOf(pReplyCtx);
    return context == nullptr ? UINT32_MAX : context->remainingMs;
}
