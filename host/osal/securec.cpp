// The platform's bounds-checked copies over libsafec, which has them as macros only.
#include "tarn_sysdiag/platform/securec.h"

#include <safe_mem_lib.h>

#undef memcpy_s
#undef memset_s

namespace {

// A violated constraint is the result that the caller gets, never a line on stderr.
void IgnoreConstraint(const char *, void *, errno_t) {}

[[gnu::constructor]] void SetConstraintHandler() {
    set_mem_constraint_handler_s(IgnoreConstraint);
}

} // namespace

// Nothing to do is no violation, as libsafec has it: records without members are cleared and copied with size 0.
int memcpy_s(void *pDest, size_t uiDestSize, const void *pSource, size_t uiCount) {
    return uiCount == 0 ? 0 : _memcpy_s_chk(pDest, uiDestSize, pSource, uiCount, BOS_UNKNOWN, BOS_UNKNOWN);
}

int memset_s(void *pDest, size_t uiDestSize, int iValue, size_t uiCount) {
    return uiCount == 0 ? 0 : _memset_s_chk(pDest, uiDestSize, iValue, uiCount, BOS_UNKNOWN);
}
