// The application's memory without an agent that serves: partitions, blocks and their guards, and reports of them.
#include <cerrno>
#include <cstring>
#include <thread>

#include <gtest/gtest.h>

#include "host/agent/heap.h"
#include "host/agent/memory.h"
#include "host/agent/memory_report.h"
#include "host/meaning/choices.h"
#include "tests/host/error_of.h"
#include "tests/host/keep.h"
#include "tests/host/manual_clocks.h"

namespace {

namespace memory_command = host::meaning::memory_command;

using namespace std::chrono_literals;
using agent::BlockInfo;
using agent::CallSite;
using agent::Memory;
using agent::Partition;
using agent::Report;

using kit::ErrorOf;

bool Has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

// The runs that are free, by order.
std::vector<uint32_t> Free(const Partition &partition) {
    std::vector<uint32_t> free;
    for (const Partition::Class &one : partition.Classes()) {
        free.push_back(one.freeNum);
    }
    return free;
}

TEST(Partition, SplitsAndJoinsBuddies) {
    Partition partition(13 * 64 + 63, 64);
    EXPECT_EQ(partition.TotalBytes(), 13 * 64) << "whole blocks";
    EXPECT_EQ(Free(partition), (std::vector<uint32_t>{1, 0, 1, 1})) << "13 = 8 + 4 + 1";
    EXPECT_EQ(partition.MaxFreeBytes(), 8 * 64);
    const Partition::Run one = partition.Take(64), two = partition.Take(65), four = partition.Take(4 * 64);
    EXPECT_EQ(one.order, 0);
    EXPECT_EQ(two.order, 1) << "a byte more than a block";
    EXPECT_EQ(four.order, 2);
    EXPECT_EQ(partition.UsedBytes(), 7 * 64);
    EXPECT_EQ(Free(partition), (std::vector<uint32_t>{0, 1, 1, 0})) << "of the halves, the right one is free";
    EXPECT_EQ(partition.MaxFreeBytes(), 4 * 64);
    EXPECT_EQ(partition.Take(5 * 64).start, nullptr);
    const Partition::Run rest = partition.Take(4 * 64);
    EXPECT_NE(rest.start, nullptr);
    EXPECT_EQ(partition.MaxFreeBytes(), 2 * 64);
    EXPECT_EQ(partition.Classes()[2].usedNum, 2);
    EXPECT_EQ(partition.Classes()[2].peakNum, 2);
    for (const Partition::Run &run : {four, one, rest, two}) {
        partition.Give(run);
    }
    EXPECT_EQ(Free(partition), (std::vector<uint32_t>{1, 0, 1, 1})) << "joined again";
    EXPECT_EQ(partition.UsedBytes(), 0);
    EXPECT_EQ(partition.PeakBytes(), 11 * 64);
    EXPECT_EQ(partition.Classes()[2].usedNum, 0);
    EXPECT_EQ(partition.Classes()[2].peakNum, 2);
    EXPECT_EQ(partition.Take(13 * 64 + 1).start, nullptr);
    EXPECT_EQ(partition.RunBytes(3), 8 * 64);
}

class MemoryTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(memory_.CreatePartition("test", 1 << 20, 64, partition_), 0);
        ASSERT_EQ(memory_.OpenHandle(partition_, "first", "program", handle_), 0);
    }
    char *Allocate(size_t bytes, CallSite site = {0x1000}) {
        return static_cast<char *>(memory_.Allocate(handle_, bytes, std::move(site)));
    }
    agent::HandleInfo Handle() const { return memory_.Handles().at(0); }

    kit::ManualClocks clocks_;
    Memory memory_{clocks_};
    uint32_t partition_ = 0, handle_ = 0;
};

TEST_F(MemoryTest, CountsWhatHandlesHold) {
    char *const small = Allocate(16); // with its guards, a block of 64 bytes
    char *const large = Allocate(17); // a byte more takes two
    EXPECT_EQ(Handle().use.blockNum, 1 + 2);
    EXPECT_EQ(Handle().use.bytes, 33);
    EXPECT_EQ(Handle().allocNum, 2);
    memory_.Free(small);
    memory_.Free(large);
    EXPECT_EQ(Handle().use.blockNum, 0);
    EXPECT_EQ(Handle().use.bytes, 0);
    EXPECT_EQ(Handle().use.peakBlockNum, 3);
    EXPECT_EQ(Handle().use.peakBytes, 33);
    EXPECT_EQ(Handle().blockBytes, 64);
    EXPECT_EQ(Handle().owner, "program");
    EXPECT_EQ(Allocate(2 << 20), nullptr);
    EXPECT_EQ(Allocate(SIZE_MAX - 10), nullptr) << "no sum wraps";
    EXPECT_EQ(Handle().failNum, 2);
    EXPECT_EQ(memory_.Allocate(4711, 1, {}), nullptr);
    const agent::PartitionInfo partition = memory_.Partitions().at(0);
    EXPECT_EQ(partition.usedBytes, 0);
    EXPECT_EQ(partition.peakBytes, 3 * 64);
    EXPECT_EQ(partition.totalBytes, 1 << 20);
    EXPECT_EQ(partition.maxFreeBytes, 1 << 20);
}

TEST_F(MemoryTest, AccountsForWhatTheApplicationAllocates) {
    uint32_t partition = 0, handle = 0;
    ASSERT_EQ(memory_.CreatePartition("own", 0, 0, partition), 0);
    ASSERT_EQ(memory_.OpenHandle(partition, "own", "", handle), 0);
    char object[100];
    EXPECT_EQ(memory_.Account(handle, nullptr, 1, {}), EINVAL);
    EXPECT_EQ(memory_.Account(handle_, object, 1, {}), EINVAL) << "it allocates";
    EXPECT_EQ(memory_.Account(4711, object, 1, {}), ENOENT);
    EXPECT_EQ(memory_.Account(handle, object, 50, {}), 0);
    EXPECT_EQ(memory_.Account(handle, object, 50, {}), EEXIST);
    EXPECT_EQ(memory_.Account(handle, object + 50, 50, {}), 0);
    EXPECT_EQ(memory_.Allocate(handle, 1, {}), nullptr);
    EXPECT_EQ(memory_.Handles().at(1).use.blockNum, 2);
    EXPECT_EQ(memory_.CloseHandle(handle), EBUSY);
    const agent::PartitionInfo info = memory_.Partitions().at(1);
    EXPECT_EQ(info.usedBytes, 100);
    EXPECT_EQ(info.totalBytes, 100);
    EXPECT_EQ(info.blockBytes, 0);
    memory_.Free(object);
    EXPECT_EQ(memory_.DamageNum(), 1) << "is no block of a partition";
    char *const block = Allocate(1);
    EXPECT_EQ(memory_.Unaccount(block), ENOENT);
    memory_.Free(block);
    EXPECT_EQ(memory_.Unaccount(object), 0);
    EXPECT_EQ(memory_.Unaccount(object), ENOENT);
    EXPECT_EQ(memory_.Unaccount(object + 50), 0);
    EXPECT_EQ(memory_.Partitions().at(1).usedBytes, 0);
    EXPECT_EQ(memory_.Partitions().at(1).peakBytes, 100);
    EXPECT_EQ(memory_.DestroyPartition(partition), EBUSY);
    EXPECT_EQ(memory_.CloseHandle(handle), 0);
    EXPECT_EQ(memory_.CloseHandle(handle), ENOENT);
    EXPECT_EQ(memory_.DestroyPartition(partition), 0);
    EXPECT_EQ(memory_.DestroyPartition(partition), ENOENT);
}

TEST_F(MemoryTest, ChecksItsArguments) {
    uint32_t id = 77;
    EXPECT_EQ(memory_.CreatePartition(nullptr, 4096, 64, id), EINVAL);
    EXPECT_EQ(memory_.CreatePartition("", 4096, 64, id), EINVAL);
    EXPECT_EQ(memory_.CreatePartition(std::string(32, 'x').c_str(), 4096, 64, id), EINVAL);
    EXPECT_EQ(memory_.CreatePartition("x", 4096, 32, id), EINVAL);
    EXPECT_EQ(memory_.CreatePartition("x", 4096, 96, id), EINVAL) << "no power of two";
    EXPECT_EQ(memory_.CreatePartition("x", 63, 64, id), EINVAL);
    EXPECT_EQ(memory_.CreatePartition("x", 0, 64, id), EINVAL);
    EXPECT_EQ(memory_.CreatePartition("x", 64, 0, id), EINVAL);
    EXPECT_EQ(memory_.OpenHandle(4711, "x", "", id), ENOENT);
    EXPECT_EQ(memory_.OpenHandle(partition_, nullptr, "", id), EINVAL);
    EXPECT_EQ(memory_.OpenHandle(partition_, std::string(32, 'x').c_str(), "", id), EINVAL);
    EXPECT_EQ(id, 77);
    EXPECT_EQ(memory_.CreatePartition(std::string(31, 'x').c_str(), 64, 64, id), 0);
    EXPECT_EQ(memory_.DestroyPartition(partition_), EBUSY);
}

// Every byte that the application did not ask for is guarded, up to 32 before and 64 behind a block.
TEST_F(MemoryTest, FindsEachOverwrittenByte) {
    setenv("TZ", "UTC", 1);
    tzset();
    uint32_t damages = 0;
    const auto finds = [&](size_t bytes, ptrdiff_t at) {
        char *const block = Allocate(bytes);
        EXPECT_EQ(memory_.Scan(), 0);
        block[at] = 'x';
        const bool found = memory_.Scan() == 1;
        EXPECT_EQ(memory_.Scan(), 0) << "is told of once";
        memory_.Free(block);
        damages += found ? 1 : 0;
        EXPECT_EQ(memory_.DamageNum(), damages);
        return found;
    };
    for (ptrdiff_t before = 1; before <= 32; ++before) {
        EXPECT_TRUE(finds(16, -before)) << before;
    }
    for (ptrdiff_t behind = 0; behind < 16; ++behind) {
        EXPECT_TRUE(finds(16, 16 + behind)) << behind;
    }
    EXPECT_TRUE(finds(100, 100 + 63)) << "guards of up to 64 bytes";
    EXPECT_FALSE(finds(100, 100 + 64));
    EXPECT_FALSE(finds(16, 0));
    EXPECT_FALSE(finds(16, 15));
    EXPECT_TRUE(finds(0, 0));
    const agent::Damage last = memory_.Damages().back();
    EXPECT_EQ(last.when, "2023-11-14 22:13:20 +0000");
    EXPECT_TRUE(Has(last.text, "of 0 bytes, handle 1 \"first\", thread " + std::to_string(gettid()))) << last.text;
    EXPECT_TRUE(Has(last.text, "overwritten 0 bytes behind its end")) << last.text;
    EXPECT_EQ(memory_.Damages().size(), damages);

    char *const block = Allocate(16);
    block[-5] = block[17] = 'x';
    memory_.Free(block);
    EXPECT_TRUE(Has(memory_.Damages().back().text, "overwritten 5 bytes before its start")) << "found when it is freed";
    memory_.Free(block);
    EXPECT_TRUE(Has(memory_.Damages().back().text, "freed twice"));
    for (int i = 0; i < 100; ++i) {
        memory_.Free(block);
    }
    EXPECT_EQ(memory_.Damages().size(), 64) << "the newest";
    EXPECT_EQ(memory_.DamageNum(), damages + 102);
    unsetenv("TZ");
    tzset();
}

TEST_F(MemoryTest, ScansAllOfManyBlocks) {
    std::vector<char *> blocks;
    for (int i = 0; i < 1000; ++i) {
        blocks.push_back(Allocate(10));
        blocks.back()[10] = 'x';
    }
    EXPECT_EQ(memory_.Scan(), 1000);
    for (char *const block : blocks) {
        memory_.Free(block);
    }
}

TEST_F(MemoryTest, KnowsTheBlockAtAnAddress) {
    char *const block = Allocate(50, {0x77});
    clocks_.Advance(90s);
    char *const next = Allocate(0);
    EXPECT_EQ(memory_.BlockAt(reinterpret_cast<uintptr_t>(block - 1)), std::nullopt);
    EXPECT_EQ(memory_.BlockAt(reinterpret_cast<uintptr_t>(block + 50)), std::nullopt);
    EXPECT_EQ(memory_.BlockAt(reinterpret_cast<uintptr_t>(next))->bytes, 0) << "an empty one too";
    const std::optional<BlockInfo> info = memory_.BlockAt(reinterpret_cast<uintptr_t>(block + 49));
    ASSERT_TRUE(info);
    EXPECT_EQ(info->number, 1);
    EXPECT_EQ(info->address, reinterpret_cast<uintptr_t>(block));
    EXPECT_EQ(info->bytes, 50);
    EXPECT_EQ(info->handleId, handle_);
    EXPECT_EQ(info->handleName, "first");
    EXPECT_EQ(info->partitionId, partition_);
    EXPECT_EQ(info->partitionName, "test");
    EXPECT_EQ(info->tid, static_cast<uint32_t>(gettid()));
    EXPECT_FALSE(info->threadEnded);
    EXPECT_EQ(info->age, 90s);
    EXPECT_EQ(info->site, CallSite{0x77});
}

TEST_F(MemoryTest, CountsBySite) {
    Allocate(10, {1});
    Allocate(10, {1});
    char *const most = Allocate(30, {2});
    const auto sites = memory_.Sites(handle_);
    ASSERT_EQ(sites.size(), 2);
    EXPECT_EQ(sites[0].site, CallSite{2}) << "that holds most";
    EXPECT_EQ(sites[0].bytes, 30);
    EXPECT_EQ(sites[1].blockNum, 2);
    EXPECT_EQ(sites[1].bytes, 20);
    memory_.Free(most);
    EXPECT_EQ(memory_.Sites(handle_).size(), 1);
    EXPECT_EQ(ErrorOf([&] { memory_.Sites(4711); }), ENOENT);
    for (uint64_t site = 100; site < 400; ++site) {
        Allocate(1, {site});
    }
    Allocate(1, {1});
    const auto many = memory_.Sites(handle_);
    EXPECT_EQ(many.size(), 257) << "the rest counts as one";
    EXPECT_EQ(many[0].site, CallSite{});
    EXPECT_EQ(many[0].blockNum, 45);
    EXPECT_EQ(many[1].blockNum, 3) << "one that is known goes on";
}

TEST_F(MemoryTest, FindsBlocksOfEndedThreads) {
    std::thread([&] { Allocate(7); }).join();
    char *const later = Allocate(8);
    EXPECT_TRUE(memory_.Hostages().empty()) << "nobody has looked";
    EXPECT_EQ(memory_.DetectHostages(), 1);
    ASSERT_EQ(memory_.Hostages().size(), 1);
    EXPECT_EQ(memory_.Hostages()[0].bytes, 7);
    EXPECT_TRUE(memory_.Hostages()[0].threadEnded);
    memory_.Free(reinterpret_cast<void *>(memory_.Hostages()[0].address));
    EXPECT_TRUE(memory_.Hostages().empty());
    EXPECT_EQ(Handle().tids.size(), 2);
    memory_.Free(later);
}

TEST_F(MemoryTest, TellsItInReports) {
    EXPECT_EQ(ErrorOf([&] { agent::Diagnose(memory_, memory_command::kSince, ""); }), ENODATA) << "no mark was set";
    Allocate(33, {0x33});
    EXPECT_EQ(agent::Diagnose(memory_, memory_command::kMark, "").text, "allocations from number 2 on count\n");
    Allocate(44, {0x44});
    Allocate(45, {0x44});
    const Report since = agent::Diagnose(memory_, memory_command::kSince, "");
    EXPECT_EQ(since.lineNum, 1);
    EXPECT_TRUE(Has(since.text, "         2             89 0x44\n")) << since.text;
    EXPECT_EQ(agent::Diagnose(memory_, memory_command::kSummary, "").lineNum, 1);
    EXPECT_EQ(agent::Diagnose(memory_, memory_command::kBlocks, "").lineNum, 3);
    clocks_.Advance(72s + 250ms);
    EXPECT_TRUE(Has(agent::Diagnose(memory_, memory_command::kBlocks, "").text, "       72.2 0x44\n"));
    EXPECT_EQ(agent::Diagnose(memory_, memory_command::kBlocks, "0").lineNum, 3);
    EXPECT_EQ(agent::Diagnose(memory_, memory_command::kBlocks, "0x1 \n").lineNum, 3);
    EXPECT_EQ(agent::Diagnose(memory_, memory_command::kBlocks, "2").lineNum, 0);
    for (const char *const wrong : {"one", "1x", "-1", "0x", "4294967296"}) {
        EXPECT_EQ(ErrorOf([&] { agent::Diagnose(memory_, memory_command::kBlocks, wrong); }), EINVAL) << wrong;
    }
    EXPECT_EQ(ErrorOf([&] { agent::Diagnose(memory_, memory_command::kLook, ""); }), EINVAL);
    EXPECT_EQ(ErrorOf([&] { agent::Diagnose(memory_, memory_command::kLook, "0x10"); }), ENOENT);
    EXPECT_EQ(kit::ReasonOf([&] { agent::Diagnose(memory_, memory_command::kLook, "x"); }),
              "argument (pucMemData) is \"x\", expected a number, or 0x and a hexadecimal one");
}

TEST_F(MemoryTest, ShowsABlocksFirstBytes) {
    char *const block = Allocate(300);
    memset(block, 0xAB, 300);
    const Report look =
        agent::Diagnose(memory_, memory_command::kLook, std::to_string(reinterpret_cast<uintptr_t>(block + 299)));
    EXPECT_EQ(look.lineNum, 1 + 16) << "256 bytes, 16 in a line";
    const auto hex = [](const char *at) {
        char text[24];
        snprintf(text, sizeof text, "%p", static_cast<const void *>(at));
        return std::string(text);
    };
    EXPECT_TRUE(Has(look.text, "\n" + hex(block) + " ab ab"));
    EXPECT_TRUE(Has(look.text, "\n" + hex(block + 240) + " ab"));
    EXPECT_FALSE(Has(look.text, "\n" + hex(block + 256)));
}

// Nobody looked while it was held.
TEST(Heap, HasThePeakOfTheProcess) {
    const host::procfs::Procfs proc;
    const agent::HeapUse before = agent::LookAtHeap(proc);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // their allocators tell nothing
    {
        const std::vector<char> large(64 << 20);
        kit::Keep(large);
    }
    const agent::HeapUse after = agent::LookAtHeap(proc);
    EXPECT_LT(after.usedBytes, before.usedBytes + (1 << 20));
    EXPECT_LT(after.usedBytes, after.peakBytes);
    EXPECT_GE(after.peakBytes, before.usedBytes + (64 << 20));
    EXPECT_GE(after.totalBytes, after.usedBytes);
#else
    EXPECT_GE(before.peakBytes, before.usedBytes);
#endif
}

} // namespace
