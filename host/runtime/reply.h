/* How a method's implementation answers: with the reply context that its wrapper was given. */
#ifndef TARN_HOST_RUNTIME_REPLY_H
#define TARN_HOST_RUNTIME_REPLY_H

#include <stdint.h>

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
uint32_t TarnHost_Reply(void *pReplyCtx, void *pResponse);

/*
 * Answers with a status instead, as an implementation does that returns non-zero, for one that has already returned 0.
 * 0, or 22 for status 0, or 114.
 */
uint32_t TarnHost_ReplyStatus(void *pReplyCtx, uint32_t uiStatus);

#ifdef __cplusplus
}
#endif

#endif
