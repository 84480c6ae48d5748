/* How a method's implementation answers: with the reply context that its wrapper was given. */
#ifndef TARN_HOST_REPLY_H
#define TARN_HOST_REPLY_H

#include <stdint.h>

#include "tarn_sysdiag/platform/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Answers with a response record: encodes it, releases it through <Method>_free, and sends. May be called while the
 * implementation runs, or later and from any thread, until the request's deadline. Returns 0 once the record has been
 * taken: it is released then, even when it could not be encoded or the peer has gone (the peer is told the former).
 * Else the record stays the caller's: 22 for a null argument, 114 (EALREADY) for a request that has been answered, by
 * an earlier reply, by a status that the implementation returned, by its deadline or by the server's end.
 */
TARN_EXPORT uint32_t TarnHost_Reply(void *pReplyCtx, void *pResponse);

/*
 * Answers with a status instead, as an implementation does that returns non-zero, for one that has already returned 0.
 * 0, or 22 for status 0, or 114.
 */
TARN_EXPORT uint32_t TarnHost_ReplyStatus(void *pReplyCtx, uint32_t uiStatus);

/*
 * Why a request fails, in words for the caller: the reason of the status that the implementation on this thread is
 * about to return, or of the failure that is in the reply it is about to send. To be called before that; the last call
 * counts. Of a long text the caller gets the first 1024 bytes, and '?' for each control character. Without an
 * implementation on this thread, nothing happens.
 */
TARN_EXPORT void TarnHost_Explain(const char *pcReason);

/*
 * The same for a request that is answered later, or by another thread. 0; 22 for a null text, or where a null context
 * stands for no request; 114 (EALREADY) for a request that has been answered; 12 (ENOMEM) where there is no memory for
 * the text.
 */
TARN_EXPORT uint32_t TarnHost_ExplainReply(void *pReplyCtx, const char *pcReason);

/*
 * Whether work on the request is still wanted; what takes long asks now and then. 0 while it is, else why not: 110
 * (ETIMEDOUT) its deadline has passed, 125 (ECANCELED) the caller has given up or gone, 108 (ESHUTDOWN) the server is
 * stopping, 114 (EALREADY) it has been answered. The caller of a one-way request may go. A null context is the request
 * whose implementation runs on this thread, for a method without reply; 0 when there is none.
 */
TARN_EXPORT uint32_t TarnHost_Cancelled(void *pReplyCtx);

/* What is left of the request's deadline, in ms: 0 when it has passed or the request has been answered. Null as above;
 * the longest there is when no implementation runs on this thread. */
TARN_EXPORT uint32_t TarnHost_RemainingMs(void *pReplyCtx);

/* Who calls, as the kernel names it. */
typedef struct TarnHost_Peer {
    uint32_t uiPid; /* the process that connected, in the numbers of this one; 0 for one that has none here */
    uint32_t uiUid;
    uint32_t uiGid;
    uint8_t ucMemoryOfOthers; /* 1: by the policy it may look into processes that aren't its own */
} TarnHost_Peer;

/* 0; 22 for a null place, or where a null context, as above, stands for no request; 114 (EALREADY) for the context of a
 * request that has been answered. */
TARN_EXPORT uint32_t TarnHost_PeerOf(void *pReplyCtx, TarnHost_Peer *pstPeer);

/* 1 while the process that connected has not ended: what was read of uiPid before was read of it, and of no other that
 * has got its number. 0 as well where there is no peer. */
TARN_EXPORT uint32_t TarnHost_PeerLives(void *pReplyCtx);

#ifdef __cplusplus
}
#endif

#endif
