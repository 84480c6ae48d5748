/* The OS-abstraction layer's functions, by the names under which the library looks them up in its process. */
#ifndef TARN_PLATFORM_OSAL_H
#define TARN_PLATFORM_OSAL_H

#include <stdint.h>

#include "tarn_sysdiag/platform/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Names the part of the system that logs. The third word is the log service's own. */
typedef struct XrtLogModule {
    const char *pcComponent;
    const char *pcModule;
    uint32_t uiWord;
} XrtLogModule;

/* Writes a log record; the format and its arguments are printf's. */
TARN_EXPORT void XRT_OsalLogWrite(const XrtLogModule *pstModule, uint32_t uiLevel, uint32_t uiErrCode,
                                  const char *pcFile, uint32_t uiLine, const char *pcFunction, const char *pcFormat,
                                  ...) __attribute__((format(printf, 7, 8)));

/* 1 when a module's memory comes from XRT_OsalMemCacheAlloc and goes to XRT_OsalMemFree; else it is the C library's. */
TARN_EXPORT uint32_t XRT_OsalMemUseFlagGet(uint32_t uiModuleId);

/* A block of uiSize bytes, accounted to module and tag, or null. */
TARN_EXPORT void *XRT_OsalMemCacheAlloc(uint32_t uiSize, uint32_t uiModuleId, const char *pcTag);

/* Gives back a block; null is accepted. */
TARN_EXPORT void XRT_OsalMemFree(void *pBlock, uint32_t uiModuleId, const char *pcTag);

#ifdef __cplusplus
}
#endif

#endif
