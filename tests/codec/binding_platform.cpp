// A platform that is what the build's definitions say:
//
//   TEST_LOG        it has XRT_OsalLogWrite
//   TEST_USE_FLAG   it has XRT_OsalMemUseFlagGet, which returns this
//   TEST_ALLOC      it has XRT_OsalMemCacheAlloc
//   TEST_FREE       it has XRT_OsalMemFree
#include "tests/codec/binding_platform.h"

#include <gtest/gtest.h>

#include "tarn_sysdiag/platform/osal.h"

PlatformCalls platformCalls;

// Past what a test counts of the C library's memory.
extern "C" void *__real_malloc(size_t size);
extern "C" void __real_free(void *block);

#ifdef TEST_LOG
const bool kPlatformLog = true;
extern "C" void XRT_OsalLogWrite(const XrtLogModule *, uint32_t, uint32_t, const char *, uint32_t, const char *,
                                 const char *, ...) {
    ++platformCalls.log;
}
#else
const bool kPlatformLog = false;
#endif

#ifdef TEST_USE_FLAG
const bool kPlatformUseFlag = true;
const bool kPlatformMemoryWanted = TEST_USE_FLAG == 1;
extern "C" uint32_t XRT_OsalMemUseFlagGet(uint32_t moduleId) {
    EXPECT_EQ(moduleId, 12U);
    ++platformCalls.useFlag;
    return TEST_USE_FLAG;
}
#else
const bool kPlatformUseFlag = false;
const bool kPlatformMemoryWanted = false;
#endif

#if defined TEST_ALLOC && defined TEST_FREE
const bool kPlatformMemory = kPlatformMemoryWanted;
#else
const bool kPlatformMemory = false;
#endif

#ifdef TEST_ALLOC
extern "C" void *XRT_OsalMemCacheAlloc(uint32_t size, uint32_t moduleId, const char *tag) {
    EXPECT_EQ(moduleId, 12U);
    EXPECT_NE(tag, nullptr);
    ++platformCalls.alloc;
    return __real_malloc(size);
}
#endif

#ifdef TEST_FREE
extern "C" void XRT_OsalMemFree(void *block, uint32_t moduleId, const char *tag) {
    EXPECT_EQ(moduleId, 12U);
    EXPECT_NE(tag, nullptr);
    ++platformCalls.free;
    __real_free(block);
}
#endif
