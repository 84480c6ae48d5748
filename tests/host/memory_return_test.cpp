// When memory is given back to the system.
#include "host/runtime/memory_return.h"

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using host::MemoryReturn;

constexpr MemoryReturn::Clock::time_point kStart(1h);
constexpr uint64_t kUsual = 20 << 20, kMore = kUsual + MemoryReturn::kMostKept;

TEST(MemoryReturn, IsDueWhenABurstHasLeftMoreThanIsKept) {
    MemoryReturn memory;
    EXPECT_FALSE(memory.IsDue(kUsual, kStart));
    EXPECT_FALSE(memory.IsDue(kMore, kStart));
    EXPECT_TRUE(memory.IsDue(kMore + 1, kStart));
    memory.Done(kUsual);
    EXPECT_FALSE(memory.IsDue(kMore, kStart + 1h));
}

TEST(MemoryReturn, WhatIsInUseIsNotTriedAgain) {
    MemoryReturn memory;
    EXPECT_FALSE(memory.IsDue(kUsual, kStart));
    EXPECT_TRUE(memory.IsDue(10 * kMore, kStart));
    memory.Done(10 * kMore);
    EXPECT_FALSE(memory.IsDue(10 * kMore, kStart + 1h));
    EXPECT_FALSE(memory.IsDue(kUsual, kStart + 1h)) << "it has been freed";
    EXPECT_TRUE(memory.IsDue(kMore + 1, kStart + 1h));
}

TEST(MemoryReturn, IsDueOnceAnIntervalAtMost) {
    MemoryReturn memory;
    EXPECT_FALSE(memory.IsDue(kUsual, kStart));
    EXPECT_TRUE(memory.IsDue(kMore + 1, kStart));
    EXPECT_FALSE(memory.IsDue(kMore + 1, kStart + MemoryReturn::kInterval - 1ns));
    EXPECT_TRUE(memory.IsDue(kMore + 1, kStart + MemoryReturn::kInterval));
}

TEST(MemoryReturn, TheSystemTellsWhatIsResident) {
    EXPECT_GT(host::ResidentBytes(), 100'000U);
}

} // namespace
