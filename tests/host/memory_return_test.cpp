// When memory is given back to the system, and what is.
#include "host/runtime/memory_return.h"

#include <malloc.h>

#include <gtest/gtest.h>

#include "host/runtime/bytes.h"

namespace {

using namespace std::chrono_literals;
using host::MemoryReturn;

constexpr MemoryReturn::Clock::time_point kStart(1h);
constexpr uint64_t kUsual = 16 << 20, kMore = kUsual + kUsual / MemoryReturn::kPartKept;

TEST(MemoryReturn, IsDueWhenABurstHasLeftMoreThanIsKept) {
    MemoryReturn memory;
    EXPECT_FALSE(memory.IsDue(kUsual, true, kStart));
    EXPECT_FALSE(memory.IsDue(kMore, true, kStart));
    EXPECT_TRUE(memory.IsDue(kMore + 1, false, kStart));
    memory.Done(kUsual, true);
    EXPECT_FALSE(memory.IsDue(kMore, true, kStart + 1h));
}

TEST(MemoryReturn, WhatIsInUseIsNotTriedAgain) {
    MemoryReturn memory;
    EXPECT_FALSE(memory.IsDue(kUsual, true, kStart));
    EXPECT_TRUE(memory.IsDue(10 * kMore, true, kStart));
    memory.Done(10 * kMore, true);
    EXPECT_FALSE(memory.IsDue(10 * kMore, true, kStart + 1h));
    EXPECT_FALSE(memory.IsDue(kUsual, true, kStart + 1h)) << "it has been freed";
    EXPECT_TRUE(memory.IsDue(kMore + 1, true, kStart + 1h));
}

TEST(MemoryReturn, WhatWasInUseOfRequestsIsTriedOnceMoreWhenThereAreNone) {
    MemoryReturn memory;
    EXPECT_FALSE(memory.IsDue(kUsual, false, kStart));
    EXPECT_TRUE(memory.IsDue(2 * kMore, false, kStart));
    memory.Done(2 * kMore, false);
    EXPECT_FALSE(memory.IsDue(2 * kMore, false, kStart + 1h));
    EXPECT_TRUE(memory.IsDue(2 * kMore, true, kStart + 1h));
    memory.Done(kUsual, true);
    EXPECT_FALSE(memory.IsDue(kUsual, true, kStart + 2h));
}

TEST(MemoryReturn, IsDueOnceAnIntervalAtMost) {
    MemoryReturn memory;
    EXPECT_FALSE(memory.IsDue(kUsual, true, kStart));
    EXPECT_TRUE(memory.IsDue(kMore + 1, true, kStart));
    EXPECT_FALSE(memory.IsDue(kMore + 1, true, kStart + MemoryReturn::kInterval - 1ns));
    EXPECT_TRUE(memory.IsDue(kMore + 1, true, kStart + MemoryReturn::kInterval));
}

TEST(MemoryReturn, TheSystemTellsWhatIsResident) {
    EXPECT_GT(host::ResidentBytes(), 100'000U);
}

// Sanitizers have allocators of their own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
size_t BytesInUse() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

TEST(MemoryReturn, WhatIsKeptForMessagesIsFreedToo) {
    constexpr size_t kSize = 1 << 19;
    host::TrimHeap();
    const size_t before = BytesInUse();
    host::FreeOfMessage(host::AllocateForMessage(kSize));
    EXPECT_GE(BytesInUse(), before + kSize) << "it is kept";
    host::TrimHeap();
    EXPECT_LT(BytesInUse(), before + kSize / 2);
}
#endif

} // namespace
