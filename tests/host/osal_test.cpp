// The OS layer: accounted memory, the log, the bounds-checked copies.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <future>
#include <thread>

#include "host/osal/accounting.h"
#include "host/osal/hex.h"
#include "host/osal/json_writer.h"
#include "host/osal/log.h"
#include "host/osal/mutex.h"
#include "tarn_sysdiag/platform/osal.h"
#include "tarn_sysdiag/platform/securec.h"

namespace {

host::TagUse UseOf(const std::string &tag) {
    for (const host::TagUse &use : host::MemoryByTag()) {
        if (use.tag == tag) {
            return use;
        }
    }
    return {};
}

TEST(Memory, IsAccountedUnderTheTagOfTheAllocation) {
    void *const first = XRT_OsalMemCacheAlloc(100, 12, "decoder");
    void *const second = XRT_OsalMemCacheAlloc(50, 12, "decoder");
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    memset(first, 0xA5, 100);
    memset(second, 0x5A, 50);
    EXPECT_EQ(UseOf("decoder").liveBlocks, 2U);
    EXPECT_EQ(UseOf("decoder").liveBytes, 150U);
    XRT_OsalMemFree(first, 12, "release");
    EXPECT_EQ(UseOf("decoder").liveBytes, 50U);
    XRT_OsalMemFree(second, 12, "release");
    const host::TagUse use = UseOf("decoder");
    EXPECT_EQ(use.liveBlocks, 0U);
    EXPECT_EQ(use.liveBytes, 0U);
    EXPECT_EQ(use.peakBytes, 150U);
    EXPECT_EQ(use.allocations, 2U);
    EXPECT_EQ(UseOf("release").allocations, 0U);
}

TEST(Memory, TagsAreComparedByTheirText) {
    char tag[] = "same text";
    XRT_OsalMemFree(XRT_OsalMemCacheAlloc(1, 12, "same text"), 12, "");
    XRT_OsalMemFree(XRT_OsalMemCacheAlloc(1, 12, tag), 12, "");
    tag[0] = 'S'; // the account keeps a copy
    EXPECT_EQ(UseOf("same text").allocations, 2U);
}

TEST(Memory, TakesNullAndNothing) {
    XRT_OsalMemFree(nullptr, 12, "any");
    void *const empty = XRT_OsalMemCacheAlloc(0, 12, nullptr);
    EXPECT_NE(empty, nullptr);
    EXPECT_EQ(UseOf("(no tag)").liveBlocks, 1U);
    XRT_OsalMemFree(empty, 12, nullptr);
    EXPECT_EQ(UseOf("(no tag)").liveBlocks, 0U);
}

TEST(Memory, BlocksAreAlignedForAnyType) {
    for (uint32_t size = 1; size < 100; size += 7) {
        void *const block = XRT_OsalMemCacheAlloc(size, 12, "aligned");
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignof(std::max_align_t), 0U);
        XRT_OsalMemFree(block, 12, "aligned");
    }
}

TEST(Memory, ThreadsAgreeOnTheFigures) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    const uint64_t before = host::MemoryTotal().allocations;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kRounds; ++i) {
                const std::string tag = "thread tag " + std::to_string((i + t) % 300);
                XRT_OsalMemFree(XRT_OsalMemCacheAlloc(8, 12, tag.c_str()), 12, "any");
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    uint64_t allocations = 0;
    const auto uses = host::MemoryByTag();
    for (const host::TagUse &use : uses) {
        if (use.tag.starts_with("thread tag ")) {
            allocations += use.allocations;
            EXPECT_EQ(use.liveBlocks, 0U);
        }
    }
    EXPECT_EQ(allocations, uint64_t{kThreads} * kRounds);
    EXPECT_EQ(host::MemoryTotal().allocations - before, uint64_t{kThreads} * kRounds);
    const auto sameTag = [](const host::TagUse &left, const host::TagUse &right) { return left.tag == right.tag; };
    EXPECT_EQ(std::adjacent_find(uses.begin(), uses.end(), sameTag), uses.end());
}

TEST(MemoryDeathTest, ForeignBlockIsRefused) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    alignas(std::max_align_t) char foreign[256] = {};
    EXPECT_DEATH(XRT_OsalMemFree(foreign + 64, 12, "release"), "from release is not a live block");
}

TEST(Log, AHookGetsTheRecord) {
    host::LogRecord seen;
    host::SetLogHook([&](const host::LogRecord &record) { seen = record; });
    const XrtLogModule module{"VELTO", "SERIAL", 0x6200};
    XRT_OsalLogWrite(&module, 2, 22, "", 33, "some_unpack", "[VELTO]:limit(%u) of %s", 7U, "field");
    host::SetLogHook(nullptr);
    EXPECT_EQ(seen.component, "VELTO");
    EXPECT_EQ(seen.module, "SERIAL");
    EXPECT_EQ(seen.word, 0x6200U);
    EXPECT_EQ(seen.level, 2U);
    EXPECT_EQ(seen.errCode, 22U);
    EXPECT_EQ(seen.file, "");
    EXPECT_EQ(seen.line, 33U);
    EXPECT_EQ(seen.function, "some_unpack");
    EXPECT_EQ(seen.text, "[VELTO]:limit(7) of field");
}

TEST(Log, GoesToStderrWithFunctionLevelAndCode) {
    testing::internal::CaptureStderr();
    const XrtLogModule module{"VELTO", "SERIAL", 0x6200};
    XRT_OsalLogWrite(&module, 2, 22, "", 33, "some_unpack", "%s", std::string(5000, 'x').c_str());
    const std::string line = testing::internal::GetCapturedStderr();
    EXPECT_NE(line.find("VELTO/SERIAL some_unpack (line 33): xxxx"), std::string::npos) << line;
    EXPECT_NE(line.find("x [error 22]\n"), std::string::npos) << line;
    EXPECT_NE(line.find("error"), std::string::npos) << line;
}

TEST(Log, ARecordStaysInItsLine) {
    testing::internal::CaptureStderr();
    host::Log().error("thread {} of {}", "a\nb", "\033[31mred\007 \xC2\x9B \xFF \xC3\xBC");
    const std::string line = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(line.ends_with("thread a b of ?[31mred? ?? ? \xC3\xBC\n")) << line;
}

TEST(Log, LevelsBelowTheLogsAreLeftOut) {
    testing::internal::CaptureStderr();
    XRT_OsalLogWrite(nullptr, 7, 0, nullptr, 1, nullptr, "debug text");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(JsonWriter, WritesWhatParsersReadBack) {
    host::JsonWriter inner;
    inner.Value(1);
    inner.Value("two");
    host::JsonWriter json;
    json.Object([&] {
        json.Member("text", "a \"quoted\" \\ path\n\x01\x1f, ü");
        json.Member("numbers", UINT64_MAX);
        json.Member("least", INT64_MIN);
        json.Member("yes", true);
        json.Member("none", std::optional<int>());
        json.Array("empty", [] {});
        json.Array("written", [&] { json.Written(host::JsonWriter()), json.Written(inner), json.Value(3); });
        json.Object("object", [&] { json.Member("ends with a bracket [", "{"), json.Object("in", [] {}); });
    });
    EXPECT_EQ(json.Text(), R"({"text":"a \"quoted\" \\ path\n\u0001\u001f, ü","numbers":18446744073709551615,)"
                           R"("least":-9223372036854775808,"yes":true,"none":null,"empty":[],)"
                           R"("written":[1,"two",3],"object":{"ends with a bracket [":"{","in":{}}})");
}

TEST(Text, HexHasTwoDigitsForEachByte) {
    const uint8_t bytes[] = {0x00, 0x0a, 0xff};
    EXPECT_EQ(host::Hex(bytes), "000aff");
    EXPECT_EQ(host::Hex(bytes, " "), "00 0a ff");
    EXPECT_EQ(host::Hex({}, " "), "");
}

TEST(BoundedCopies, CopyAndFill) {
    char to[8] = {};
    EXPECT_EQ(memcpy_s(to, sizeof to, "abcdefg", 8), 0);
    EXPECT_STREQ(to, "abcdefg");
    EXPECT_EQ(memset_s(to, sizeof to, 'z', 3), 0);
    EXPECT_STREQ(to, "zzzdefg");
}

TEST(BoundedCopies, NothingToDoIsNoError) {
    char to[1] = {'k'};
    testing::internal::CaptureStderr();
    EXPECT_EQ(memcpy_s(to, 0, to, 0), 0);
    EXPECT_EQ(memset_s(to, 0, 0, 0), 0);
    EXPECT_EQ(memcpy_s(nullptr, 0, nullptr, 0), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(to[0], 'k');
}

TEST(BoundedCopies, RefuseQuietly) {
    char to[4] = {};
    testing::internal::CaptureStderr();
    EXPECT_NE(memcpy_s(to, sizeof to, "abcdefgh", 8), 0);
    EXPECT_NE(memcpy_s(nullptr, 4, "abcd", 4), 0);
    EXPECT_NE(memcpy_s(to, sizeof to, nullptr, 4), 0);
    EXPECT_NE(memset_s(to, sizeof to, 0, 5), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(BoundedCopies, TakeLargeBlocks) {
    const std::vector<char> from(20U << 20, 'q');
    std::vector<char> to(from.size());
    EXPECT_EQ(memcpy_s(to.data(), to.size(), from.data(), from.size()), 0);
    EXPECT_EQ(to, from);
}

// --- Locks

class Turns {
public:
    // Returns the number of the turn that it waited for.
    int Wait(int turn) TARN_EXCLUDES(mutex_) {
        host::MutexLock lock(mutex_);
        changed_.Wait(lock, [this, turn]() TARN_REQUIRES(mutex_) { return turn_ == turn; });
        return turn_;
    }

    bool WaitUntil(std::chrono::steady_clock::time_point time, int turn) TARN_EXCLUDES(mutex_) {
        host::MutexLock lock(mutex_);
        return changed_.WaitUntil(lock, time, [this, turn]() TARN_REQUIRES(mutex_) { return turn_ == turn; });
    }

    void Next() TARN_EXCLUDES(mutex_) {
        const host::MutexLock lock(mutex_);
        ++turn_;
        changed_.NotifyAll();
    }

    bool IsFreeBetweenUnlockAndLock() TARN_EXCLUDES(mutex_) {
        const auto taken = [this] {
            const bool got = mutex_.TryLock();
            if (got) {
                mutex_.Unlock();
            }
            return got;
        };
        const auto elsewhere = [&] { return std::async(std::launch::async, taken).get(); };
        host::MutexLock lock(mutex_);
        const bool whileHeld = elsewhere();
        lock.Unlock();
        const bool between = elsewhere();
        lock.Lock();
        return !whileHeld && between && !elsewhere();
    }

private:
    host::Mutex mutex_;
    host::Condition changed_;
    int turn_ TARN_GUARDED_BY(mutex_) = 0;
};

TEST(Locks, AConditionWaitsWithItsMutexFree) {
    Turns turns;
    auto waits = std::async(std::launch::async, [&] { return turns.Wait(2); });
    turns.Next();
    turns.Next();
    EXPECT_EQ(waits.get(), 2);
}

TEST(Locks, AWaitEndsAtItsTime) {
    Turns turns;
    EXPECT_FALSE(turns.WaitUntil(std::chrono::steady_clock::now(), 1));
    turns.Next();
    EXPECT_TRUE(turns.WaitUntil(std::chrono::steady_clock::now(), 1));
}

TEST(Locks, AScopedLockCanBeGivenBackAndTakenAgain) {
    EXPECT_TRUE(Turns().IsFreeBetweenUnlockAndLock());
}

} // namespace
