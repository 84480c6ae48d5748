// The platform's bounds-checked copies.
#include "tarn_sysdiag/platform/securec.h"

#include <cerrno>
#include <cstring>

// Nothing to do is no violation: records without members are cleared and copied with size 0.
int memcpy_s(void *pDest, size_t uiDestSize, const void *pSource, size_t uiCount) {
    if (uiCount == 0) {
        return 0;
    }
    if (pDest == nullptr || pSource == nullptr) {
        return EINVAL;
    }
    if (uiCount > uiDestSize) {
        return ERANGE;
    }
    memmove(pDest, pSource, uiCount);
    return 0;
}

int memset_s(void *pDest, size_t uiDestSize, int iValue, size_t uiCount) {
    if (uiCount == 0) {
        return 0;
    }
    if (pDest == nullptr) {
        return EINVAL;
    }
    if (uiCount > uiDestSize) {
        return ERANGE;
    }
    memset(pDest, iValue, uiCount);
    return 0;
}
