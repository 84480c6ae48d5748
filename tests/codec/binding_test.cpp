// The lazy binding to the platform, in processes with different ones.
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

#include "tests/codec/binding_platform.h"
#include "tests/codec/test_types.h"

// The linker leads the program's calls to these functions, and theirs to the C library's.
extern "C" void *__real_malloc(size_t size);
extern "C" void __real_free(void *block);
extern "C" void *__real_dlsym(void *handle, const char *name);

namespace {
std::atomic<int> clibAlloc = 0, clibFree = 0; // calls of malloc and free that the codecs make
std::atomic<bool> counting = false;

std::mutex lookUpsMutex;
std::map<std::string, int> lookUps;

// Counts from here on.
void Reset() {
    clibAlloc = clibFree = 0;
    platformCalls.useFlag = platformCalls.alloc = platformCalls.free = platformCalls.log = 0;
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
    clibAlloc += counting ? 1 : 0;
    return __real_malloc(size);
}

void __wrap_free(void *block) {
    clibFree += counting ? 1 : 0;
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
}

// Each of these uses a binding of its own, as new as that of a unit just loaded. Blocks are volatile, or a compiler may
// drop an allocation that is only released.

TEST(Binding, AllocatesWithTheCLibraryUntilItIsResolvedAndAsksForNothing) {
    Reset();
    platform::Binding binding;
    void *volatile block = Counting([&] { return binding.Alloc(1, "tag"); });
    Counting([&] { return binding.Free(block, "tag"), 0; });
    EXPECT_EQ(clibAlloc, 1);
    EXPECT_EQ(clibFree, 1);
    EXPECT_EQ(platformCalls.alloc + platformCalls.free, 0);
    EXPECT_TRUE(lookUps.empty());
}

TEST(Binding, TakesThePlatformsMemoryWhenTheFlagIs1AndBothFunctionsExistAndElseTheCLibrarys) {
    platform::Binding binding;
    binding.EnsureMemBound();
    Reset();
    void *volatile block = Counting([&] { return binding.Alloc(1, "tag"); });
    Counting([&] { return binding.Free(block, "tag"), 0; });
    EXPECT_EQ(platformCalls.alloc, kPlatformMemory ? 1 : 0);
    EXPECT_EQ(platformCalls.free, kPlatformMemory ? 1 : 0);
    EXPECT_EQ(clibAlloc, kPlatformMemory ? 0 : 1);
    EXPECT_EQ(clibFree, kPlatformMemory ? 0 : 1);
}

TEST(Binding, LooksUpTheMemoryFunctionsOnceAndOnlyThoseItNeeds) {
    Reset();
    platform::Binding binding;
    for (int i = 0; i < 3; ++i) {
        binding.EnsureMemBound();
    }
    std::map<std::string, int> expected = {{"XRT_OsalMemUseFlagGet", 1}};
    if (kPlatformMemoryWanted) {
        expected.insert({{"XRT_OsalMemCacheAlloc", 1}, {"XRT_OsalMemFree", 1}});
    }
    EXPECT_EQ(lookUps, expected);
    EXPECT_EQ(platformCalls.useFlag, kPlatformUseFlag ? 1 : 0);
}

TEST(Binding, LooksUpTheLogOnceWhetherOrNotItExists) {
    Reset();
    platform::Binding binding;
    for (int i = 0; i < 3; ++i) {
        binding.Log(platform::kInvalid, __LINE__, "function", "[VELTO]:text %u", 1U);
    }
    EXPECT_EQ(lookUps, (std::map<std::string, int>{{"XRT_OsalLogWrite", 1}}));
    EXPECT_EQ(platformCalls.log, kPlatformLog ? 3 : 0);
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
        ASSERT_EQ(platformCalls.useFlag, kPlatformUseFlag ? 1 : 0);
        ASSERT_EQ(platformCalls.alloc, kPlatformMemory ? 16 : 0);
        ASSERT_EQ(platformCalls.free, kPlatformMemory ? 16 : 0);
        ASSERT_EQ(platformCalls.log, kPlatformLog ? 16 : 0);
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
    EXPECT_EQ(platformCalls.alloc, kPlatformMemory ? 1 : 0);
    EXPECT_EQ(platformCalls.free, kPlatformMemory ? 1 : 0);
    EXPECT_EQ(clibAlloc, kPlatformMemory ? 0 : 1);
    EXPECT_EQ(clibFree, kPlatformMemory ? 0 : 1);
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
    EXPECT_EQ(platformCalls.log, kPlatformLog ? 3 : 0);
}
