// The lazy binding to the platform, in a process whose platform is what the build's definitions say:
//
//   TEST_LOG        it has XRT_OsalLogWrite
//   TEST_USE_FLAG   it has XRT_OsalMemUseFlagGet, which returns this
//   TEST_ALLOC      it has XRT_OsalMemCacheAlloc
//   TEST_FREE       it has XRT_OsalMemFree
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tarn_sysdiag/platform/securec.h"
#include "velto/registry.h"

TARN_UNIT()

#include "tests/codec/test_types.h"

// The linker leads the program's calls to these functions, and theirs to the C library's.
extern "C" void *__real_malloc(size_t size);
extern "C" void __real_free(void *block);
extern "C" void *__real_dlsym(void *handle, const char *name);

namespace {
#if defined TEST_USE_FLAG && TEST_USE_FLAG == 1 && defined TEST_ALLOC && defined TEST_FREE
constexpr bool kPlatformMemory = true;
#else
constexpr bool kPlatformMemory = false;
#endif
#ifdef TEST_LOG
constexpr bool kPlatformLog = true;
#else
constexpr bool kPlatformLog = false;
#endif
#ifdef TEST_USE_FLAG
constexpr bool kHasUseFlag = true;
#else
constexpr bool kHasUseFlag = false;
#endif

struct Calls {
    std::atomic<int> useFlag = 0, alloc = 0, free = 0, log = 0, clibAlloc = 0, clibFree = 0;
};
Calls calls;
std::atomic<bool> counting = false; // calls of malloc and free that the codecs make

std::mutex lookUpsMutex;
std::map<std::string, int> lookUps;

// Counts from here on.
void Reset() {
    calls.useFlag = calls.alloc = calls.free = calls.log = calls.clibAlloc = calls.clibFree = 0;
    const std::lock_guard lock(lookUpsMutex);
    lookUps.clear();
}

// Lets a call of a codec be seen to use the C library's memory.
template <class Call>
auto Counting(Call call) {
    counting = true;
    const auto result = call();
    counting = false;
    return result;
}

constexpr uint8_t kMessage[] = {
    16, 0, 0, 0, 12, 0, 0, 0, 4, 0, 0, 0, 0,   0,   0, 0, // only slot 0 is present
    12, 0, 0, 0, 4,  0, 0, 0, 2, 0, 0, 0, 'a', 'b', 0,    // the string "ab"
};
} // namespace

extern "C" {
void *__wrap_malloc(size_t size) {
    calls.clibAlloc += counting ? 1 : 0;
    return __real_malloc(size);
}

void __wrap_free(void *block) {
    calls.clibFree += counting ? 1 : 0;
    __real_free(block);
}

void *__wrap_dlsym(void *handle, const char *name) {
    {
        const std::lock_guard lock(lookUpsMutex);
        ++lookUps[name];
    }
    // Whoever comes late must find the first still at it.
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return __real_dlsym(handle, name);
}

int memcpy_s(void *to, size_t room, const void *from, size_t count) {
    return count <= room && memcpy(to, from, count) != nullptr ? 0 : 34;
}

#ifdef TEST_LOG
void XRT_OsalLogWrite(const XrtLogModule *, uint32_t, uint32_t, const char *, uint32_t, const char *, const char *,
                      ...) {
    ++calls.log;
}
#endif

#ifdef TEST_USE_FLAG
uint32_t XRT_OsalMemUseFlagGet(uint32_t moduleId) {
    EXPECT_EQ(moduleId, 12U);
    ++calls.useFlag;
    return TEST_USE_FLAG;
}
#endif

#ifdef TEST_ALLOC
void *XRT_OsalMemCacheAlloc(uint32_t size, uint32_t moduleId, const char *tag) {
    EXPECT_EQ(moduleId, 12U);
    EXPECT_NE(tag, nullptr);
    ++calls.alloc;
    return __real_malloc(size);
}
#endif

#ifdef TEST_FREE
void XRT_OsalMemFree(void *block, uint32_t moduleId, const char *tag) {
    EXPECT_EQ(moduleId, 12U);
    EXPECT_NE(tag, nullptr);
    ++calls.free;
    __real_free(block);
}
#endif
}

// Each of these uses a binding of its own, as new as that of a unit just loaded. Blocks are volatile, or a compiler may
// drop an allocation that is only released.

TEST(Binding, AllocatesWithTheCLibraryUntilItIsResolvedAndAsksForNothing) {
    Reset();
    platform::Binding binding;
    void *volatile block = Counting([&] { return binding.Alloc(1, "tag"); });
    Counting([&] { return binding.Free(block, "tag"), 0; });
    EXPECT_EQ(calls.clibAlloc, 1);
    EXPECT_EQ(calls.clibFree, 1);
    EXPECT_EQ(calls.alloc + calls.free, 0);
    EXPECT_TRUE(lookUps.empty());
}

TEST(Binding, TakesThePlatformsMemoryWhenTheFlagIs1AndBothFunctionsExistAndElseTheCLibrarys) {
    platform::Binding binding;
    binding.EnsureMemBound();
    Reset();
    void *volatile block = Counting([&] { return binding.Alloc(1, "tag"); });
    Counting([&] { return binding.Free(block, "tag"), 0; });
    EXPECT_EQ(calls.alloc, kPlatformMemory ? 1 : 0);
    EXPECT_EQ(calls.free, kPlatformMemory ? 1 : 0);
    EXPECT_EQ(calls.clibAlloc, kPlatformMemory ? 0 : 1);
    EXPECT_EQ(calls.clibFree, kPlatformMemory ? 0 : 1);
}

TEST(Binding, LooksUpTheMemoryFunctionsOnceAndOnlyThoseItNeeds) {
    Reset();
    platform::Binding binding;
    for (int i = 0; i < 3; ++i) {
        binding.EnsureMemBound();
    }
    std::map<std::string, int> expected = {{"XRT_OsalMemUseFlagGet", 1}};
#if defined TEST_USE_FLAG && TEST_USE_FLAG == 1
    expected.insert({{"XRT_OsalMemCacheAlloc", 1}, {"XRT_OsalMemFree", 1}});
#endif
    EXPECT_EQ(lookUps, expected);
    EXPECT_EQ(calls.useFlag, kHasUseFlag ? 1 : 0);
}

TEST(Binding, LooksUpTheLogOnceWhetherOrNotItExists) {
    Reset();
    platform::Binding binding;
    for (int i = 0; i < 3; ++i) {
        binding.Log(platform::kInvalid, __LINE__, "function", "[VELTO]:text %u", 1U);
    }
    EXPECT_EQ(lookUps, (std::map<std::string, int>{{"XRT_OsalLogWrite", 1}}));
    EXPECT_EQ(calls.log, kPlatformLog ? 3 : 0);
}

TEST(Binding, ClearsTheSwapFlagWhenItResolvesMemoryAndNotAgain) {
    platform::Binding binding;
    EXPECT_FALSE(binding.Swapped());
    binding.SetSwapped(true);
    binding.EnsureMemBound();
    EXPECT_FALSE(binding.Swapped());
    binding.SetSwapped(true);
    binding.EnsureMemBound();
    EXPECT_TRUE(binding.Swapped());
}

TEST(Binding, IsResolvedOnceBySixteenThreadsAtOnce) {
    for (int round = 0; round < 20; ++round) {
        Reset();
        platform::Binding binding;
        std::atomic<int> waiting = 16;
        std::vector<std::thread> threads;
        for (int i = 0; i < 16; ++i) {
            threads.emplace_back([&] {
                --waiting;
                while (waiting != 0) {
                    std::this_thread::yield();
                }
                binding.EnsureMemBound();
                void *volatile block = binding.Alloc(8, "tag");
                binding.Free(block, "tag");
                binding.Log(platform::kInvalid, __LINE__, "function", "[VELTO]:text");
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
        ASSERT_EQ(lookUps["XRT_OsalMemUseFlagGet"], 1);
        ASSERT_EQ(lookUps["XRT_OsalLogWrite"], 1);
        ASSERT_EQ(calls.useFlag, kHasUseFlag ? 1 : 0);
        ASSERT_EQ(calls.alloc, kPlatformMemory ? 16 : 0);
        ASSERT_EQ(calls.free, kPlatformMemory ? 16 : 0);
        ASSERT_EQ(calls.log, kPlatformLog ? 16 : 0);
    }
}

// These use the unit's binding, through its codecs.

TEST(Binding, CodecsAllocateAndReleaseThroughIt) {
    Tarn_sys_diag_TestOwner record;
    Tarn_sys_diag_TestOwner_free_unpacked(nullptr);
    Reset();
    ASSERT_EQ(Counting([&] { return Tarn_sys_diag_TestOwner_unpack(kMessage, sizeof kMessage, &record); }), &record);
    EXPECT_STREQ(record.pcText, "ab");
    Counting([&] { return Tarn_sys_diag_TestOwner_free_unpacked(&record); });
    EXPECT_EQ(record.pcText, nullptr);
    EXPECT_EQ(calls.alloc, kPlatformMemory ? 1 : 0);
    EXPECT_EQ(calls.free, kPlatformMemory ? 1 : 0);
    EXPECT_EQ(calls.clibAlloc, kPlatformMemory ? 0 : 1);
    EXPECT_EQ(calls.clibFree, kPlatformMemory ? 0 : 1);
}

TEST(Binding, CodecsGiveTheSameResultsWithAndWithoutALog) {
    Tarn_sys_diag_TestOwner record;
    Reset();
    EXPECT_EQ(Tarn_sys_diag_TestOwner_unpack(kMessage, 3, &record), nullptr);
    EXPECT_EQ(Tarn_sys_diag_TestOwner_unpack(nullptr, sizeof kMessage, &record), nullptr);
    uint32_t capacity = 3;
    uint8_t byte;
    const VeltoOutBuf out{&byte, &capacity};
    EXPECT_EQ(Tarn_sys_diag_TestOwner_pack(&out, &record), 0U);
    EXPECT_EQ(calls.log, kPlatformLog ? 3 : 0);
}
