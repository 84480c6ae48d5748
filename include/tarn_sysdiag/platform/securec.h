/* The platform's bounds-checked copies. Both return 0, or an error and leave the destination unspecified. */
#ifndef TARN_PLATFORM_SECUREC_H
#define TARN_PLATFORM_SECUREC_H

#include <stddef.h>

#include "tarn_sysdiag/platform/export.h"

#ifdef __cplusplus
extern "C" {
#endif

TARN_EXPORT int memcpy_s(void *pDest, size_t uiDestSize, const void *pSource, size_t uiCount);
TARN_EXPORT int memset_s(void *pDest, size_t uiDestSize, int iValue, size_t uiCount);

/* The platform's copy for large blocks. Not every platform has it; it is null then. */
TARN_EXPORT int memcpy_sOptAsm(void *pDest, size_t uiDestSize, const void *pSource, size_t uiCount)
    __attribute__((weak));

#ifdef __cplusplus
}
#endif

#endif
