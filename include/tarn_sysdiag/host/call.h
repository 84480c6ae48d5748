/* What a caller of the library's proxies says with a call, and may ask when it has ended. */
#ifndef TARN_HOST_CALL_H
#define TARN_HOST_CALL_H

#include <stdint.h>

#include "tarn_sysdiag/platform/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What a proxy's pInvokeCtx points to; null stands for {0, 0}. It is read during the call of the proxy only. */
typedef struct TarnHost_InvokeCtx {
    uint32_t uiPid;     /* whose agent; 0 for the service's own socket */
    uint32_t uiTimeout; /* ms; 0 for the default */
} TarnHost_InvokeCtx;

/*
 * Why the last call of a proxy or of TarnHost_Serve (serve.h) failed that failed on this thread, in words; of an
 * asynchronous call, on the thread of its callback and during it. Never null; valid until the next call on this thread.
 */
TARN_EXPORT const char *TarnHost_LastError(void);

/*
 * Why the result in a reply is a failure, in words of the method's: of the last call that ended on this thread, or of
 * an asynchronous call during its callback. Empty when the reply brings no explanation, and after a call that failed,
 * of which TarnHost_LastError tells. Never null; valid until the next call on this thread.
 */
TARN_EXPORT const char *TarnHost_Explanation(void);

#ifdef __cplusplus
}
#endif

#endif
