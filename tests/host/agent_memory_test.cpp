// The application's memory: what it registers and allocates in this process, and what the agent and the daemon tell.
#include "host/answer/unit.h"

TARN_UNIT()

#include "host/meaning/choices.h"
#include "tarn_sysdiag/types/tarnd.h"

#include <dlfcn.h>

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>

#include "tarn_sysdiag/agent.h"
#include "tests/host/daemon_kit.h"
#include "tests/host/keep.h"

namespace {

namespace app_memory = host::meaning::app_memory;
namespace damage_report = host::meaning::damage_report;
namespace damage_scan = host::meaning::damage_scan;
namespace memory_command = host::meaning::memory_command;
namespace memory_unit = host::meaning::memory_unit;
namespace top_handles = host::meaning::top_handles;

using namespace std::chrono_literals;

// Not inlined, so that its name stands in the stacks.
extern "C" [[gnu::noinline]] void *AllocateForTheTest(uint32_t handle, size_t bytes) {
    void *const block = TarnAgent_Alloc(handle, bytes);
    asm volatile(""); // not a tail call
    return block;
}

bool Has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

class AgentMemoryTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(TarnAgent_Init("memory", dir_.Path().c_str()), 0);
        ASSERT_EQ(TarnAgent_CreatePartition("test", 64 << 10, 64, &partition_), 0);
        ASSERT_EQ(TarnAgent_OpenMemHandle(partition_, "first", &first_), 0);
        ASSERT_EQ(TarnAgent_OpenMemHandle(partition_, "second", &second_), 0);
    }
    void TearDown() override {
        for (void *const block : blocks_) {
            TarnAgent_Free(block);
        }
        EXPECT_EQ(TarnAgent_CloseMemHandle(first_), 0);
        EXPECT_EQ(TarnAgent_CloseMemHandle(second_), 0);
        EXPECT_EQ(TarnAgent_DestroyPartition(partition_), 0);
        TarnAgent_Shutdown();
    }

    // Freed at the end.
    char *Allocate(uint32_t handle, size_t bytes) {
        void *const block = AllocateForTheTest(handle, bytes);
        EXPECT_NE(block, nullptr);
        blocks_.push_back(block);
        return static_cast<char *>(block);
    }

    template <class Response, class Request>
    kit::Answer<Unit, Response> Ask(const char *method, const Request &request) {
        return kit::Call<Unit, Response>(client_, "TarnSysdiagAgent", self_, method, request);
    }
    auto Partition() {
        return Ask<Tarn_sys_diag_GetMirelMemPtInfoOutput>("GetMirelMemPtInfo",
                                                          Tarn_sys_diag_GetMirelMemPtInfoInput{partition_});
    }
    struct Report {
        uint32_t result, number;
        std::string text;
    };
    Report Diagnose(uint32_t command, std::string argument = "") {
        const auto answer = Ask<Tarn_sys_diag_mem_PRCOUT>(
            "MemDiag_ma", Tarn_sys_diag_mem_RPCIN{command, static_cast<uint32_t>(argument.size()),
                                                  reinterpret_cast<uint8_t *>(argument.data())});
        EXPECT_EQ(answer.Status(), 0) << answer.Text();
        return {answer->uiValue1, answer->uiValue2,
                std::string(reinterpret_cast<const char *>(answer->pucData), answer->uiDataLen)};
    }
    Report Damage(uint32_t type) {
        const auto answer = Ask<Tarn_sys_diag_MemDmgInfoOut>("GetMemDmgInfo", Tarn_sys_diag_MemDmgInfoIn{type});
        return {answer.Status(), answer->uiValue1,
                std::string(reinterpret_cast<const char *>(answer->pucInfo), answer->uiInfoLen)};
    }
    uint32_t Scan(uint32_t scan) {
        return Ask<Tarn_sys_diag_MemDmgScanOut>("SetMemDmgScan", Tarn_sys_diag_MemDmgScanIn{scan})->uiResult;
    }

    const uint32_t self_ = static_cast<uint32_t>(getpid());
    const kit::TempDir dir_;
    host::Client client_{{.runDir = dir_.Path()}};
    uint32_t partition_ = 0, first_ = 0, second_ = 0;
    std::vector<void *> blocks_;
};

TEST_F(AgentMemoryTest, TellsWhatHandlesHold) {
    Allocate(first_, 10); // one block of 64 bytes with its guards
    Allocate(first_, 100);
    Allocate(second_, 1000);
    void *const freed = AllocateForTheTest(first_, 500);
    TarnAgent_Free(freed);
    EXPECT_EQ(TarnAgent_Alloc(first_, 1 << 20), nullptr);

    const auto records = Ask<Tarn_sys_diag_ProcPtRecodResult>("GetProcPartitionMemHandleRecod",
                                                              Tarn_sys_diag_ProcPtRecodInput{partition_, 0, 0, 0, 0});
    EXPECT_EQ(records->uiResult, 0);
    EXPECT_EQ(records->uiPid, self_);
    ASSERT_EQ(records->uiRecodNum, 2);
    const Tarn_sys_diag_ProcPtRecod &record = records->pstRecod[0];
    EXPECT_STREQ(record.szHandleName, "first");
    EXPECT_EQ(record.uiBlockSize, 64);
    EXPECT_EQ(record.uiBlockNum, 1 + 4);
    EXPECT_EQ(record.uiPeakNum, 1 + 4 + 16) << "500 bytes and guards take 16 blocks";
    EXPECT_EQ(record.uiFailNum, 1);
    EXPECT_EQ(record.ullAllocNum, 3);
    EXPECT_EQ(record.ullUsedBytes, 110);
    Dl_info own{};
    dladdr(reinterpret_cast<void *>(AllocateForTheTest), &own);
    EXPECT_STREQ(record.pcOwner, own.dli_fname);
    ASSERT_EQ(record.uiTidNum, 1);
    EXPECT_EQ(record.puiTid[0], static_cast<uint32_t>(gettid()));

    const auto one = Ask<Tarn_sys_diag_ProcPtRecodResult>("GetProcPartitionMemHandleRecod",
                                                          Tarn_sys_diag_ProcPtRecodInput{partition_, 0, 1, 2, 0});
    EXPECT_EQ(one->uiTotalNum, 2);
    ASSERT_EQ(one->uiRecodNum, 1);
    EXPECT_STREQ(one->pstRecod[0].szHandleName, "second");

    const auto top = Ask<Tarn_sys_diag_GetTopNHandleInfoOutput>("GetTopNHandleInfo", Tarn_sys_diag_None{});
    ASSERT_GE(top->uiHandleNum, 2);
    EXPECT_STREQ(top->pstHandle[0].szHandleName, "second");
    EXPECT_EQ(top->pstHandle[0].ullUsedBytes, 1000);
    EXPECT_EQ(top->ullTotalBytes, 1110);
    EXPECT_EQ(top->pstHandle[1].ullPeakBytes, 610);

    const auto handles = Ask<Tarn_sys_diag_GetMirelMemHandleInfoOutput>("GetMirelMemHandleInfo", Tarn_sys_diag_None{});
    ASSERT_EQ(handles->uiHandleNum, 2);
    EXPECT_EQ(handles->pstHandle[1].uiValue, second_);
    EXPECT_EQ(handles->pstHandle[1].ullValue, 1000);
    EXPECT_EQ(handles->uiValue1, 2);
    EXPECT_EQ(handles->uiValue2, 1);
    EXPECT_EQ(handles->uiValue3, Damage(damage_report::kDamages).number);
}

TEST_F(AgentMemoryTest, TellsOfHandlesWhatIsAskedFor) {
    uint32_t other = 0, otherHandle = 0;
    ASSERT_EQ(TarnAgent_CreatePartition("other", 4096, 64, &other), 0);
    ASSERT_EQ(TarnAgent_OpenMemHandle(other, "third", &otherHandle), 0);
    void *const block = TarnAgent_Alloc(otherHandle, 1);
    const auto names = [&](uint32_t partition, uint32_t handle, uint32_t onlyHolding) {
        const auto records = Ask<Tarn_sys_diag_ProcPtRecodResult>(
            "GetProcPartitionMemHandleRecod", Tarn_sys_diag_ProcPtRecodInput{partition, handle, 0, 0, onlyHolding});
        std::string text;
        for (uint32_t i = 0; i < records->uiRecodNum; ++i) {
            text += std::string(records->pstRecod[i].szHandleName) + " ";
        }
        return text;
    };
    EXPECT_EQ(names(0, 0, 0), "first second third ");
    EXPECT_EQ(names(partition_, 0, 0), "first second ");
    EXPECT_EQ(names(0, second_, 0), "second ");
    EXPECT_EQ(names(0, 0, 1), "third ");
    EXPECT_EQ(Partition()->uiHandleNum, 0) << "none of its own holds anything";
    TarnAgent_Free(block);

    std::vector<uint32_t> handles(9);
    for (uint32_t &handle : handles) {
        ASSERT_EQ(TarnAgent_OpenMemHandle(other, "more", &handle), 0);
    }
    const auto top = Ask<Tarn_sys_diag_GetTopNHandleInfoOutput>("GetTopNHandleInfo", Tarn_sys_diag_None{});
    EXPECT_EQ(top->uiHandleTotal, 12);
    EXPECT_EQ(top->uiHandleNum, top_handles::kMost);
    for (const uint32_t handle : handles) {
        EXPECT_EQ(TarnAgent_CloseMemHandle(handle), 0);
    }
    EXPECT_EQ(TarnAgent_CloseMemHandle(otherHandle), 0);
    EXPECT_EQ(TarnAgent_DestroyPartition(other), 0);
}

TEST_F(AgentMemoryTest, TellsThePartitionsState) {
    const auto empty = Partition();
    EXPECT_STREQ(empty->szPtName, "test");
    EXPECT_EQ(empty->ullTotalBytes, 64 << 10);
    EXPECT_EQ(empty->ullMaxFreeBytes, 64 << 10);
    Allocate(first_, 100); // a run of 4 blocks
    Allocate(second_, 1);
    const auto used = Partition();
    EXPECT_EQ(used->ullUsedBytes, 256 + 64);
    EXPECT_EQ(used->ullMaxFreeBytes, 32 << 10) << "the largest buddy that is whole";
    ASSERT_GE(used->uiBlockClassNum, 3);
    EXPECT_EQ(used->pstBlockClass[0].uiBlockSize, 64);
    EXPECT_EQ(used->pstBlockClass[0].uiUsedNum, 1);
    EXPECT_EQ(used->pstBlockClass[2].uiBlockSize, 256);
    EXPECT_EQ(used->pstBlockClass[2].uiUsedNum, 1);
    ASSERT_EQ(used->uiHandleNum, 2);
    EXPECT_STREQ(used->pstHandle[0].szHandleName, "first");
    for (void *const block : blocks_) {
        TarnAgent_Free(block);
    }
    blocks_.clear();
    EXPECT_EQ(Partition()->ullUsedBytes, 0);
    EXPECT_EQ(Partition()->ullPeakBytes, 256 + 64);
    EXPECT_EQ(Partition()->ullMaxFreeBytes, 64 << 10) << "joined again";
    const auto unknown =
        Ask<Tarn_sys_diag_GetMirelMemPtInfoOutput>("GetMirelMemPtInfo", Tarn_sys_diag_GetMirelMemPtInfoInput{4711});
    EXPECT_EQ(unknown->uiResult, ENOENT);
}

// A partition of any size, filled and emptied at random, hands out no byte twice.
TEST_F(AgentMemoryTest, KeepsBlocksApart) {
    uint32_t partition = 0, handle = 0;
    ASSERT_EQ(TarnAgent_CreatePartition("odd", 77 * 128 + 5, 128, &partition), 0);
    ASSERT_EQ(TarnAgent_OpenMemHandle(partition, "odd", &handle), 0);
    std::mt19937 random(4711);
    std::map<unsigned char *, size_t> held;
    uint32_t refused = 0;
    for (uint32_t i = 0; i < 5000; ++i) {
        if (random() % 2 == 0) {
            const size_t size = random() % 600;
            auto *const block = static_cast<unsigned char *>(TarnAgent_Alloc(handle, size));
            refused += block == nullptr;
            if (block != nullptr) {
                EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 32, 0);
                const auto next = held.lower_bound(block);
                EXPECT_TRUE(next == held.end() || block + size <= next->first);
                EXPECT_TRUE(next == held.begin() || std::prev(next)->first + std::prev(next)->second <= block);
                memset(block, 0xAA, size);
                held[block] = size;
            }
        } else if (!held.empty()) {
            const auto victim = std::next(held.begin(), static_cast<ptrdiff_t>(random() % held.size()));
            TarnAgent_Free(victim->first);
            held.erase(victim);
        }
    }
    EXPECT_GT(refused, 0) << "it was full at times";
    const Report before = Damage(damage_report::kDamages);
    for (const auto &[block, size] : held) {
        TarnAgent_Free(block);
    }
    EXPECT_EQ(Damage(damage_report::kDamages).number, before.number) << "no guard was touched";
    const auto info = Ask<Tarn_sys_diag_GetMirelMemPtInfoOutput>("GetMirelMemPtInfo",
                                                                 Tarn_sys_diag_GetMirelMemPtInfoInput{partition});
    EXPECT_EQ(info->ullTotalBytes, 77 * 128);
    EXPECT_EQ(info->ullMaxFreeBytes, 64 * 128);
    EXPECT_EQ(info->ullUsedBytes, 0);
    EXPECT_EQ(TarnAgent_CloseMemHandle(handle), 0);
    EXPECT_EQ(TarnAgent_DestroyPartition(partition), 0);
}

TEST_F(AgentMemoryTest, ChecksItsArguments) {
    uint32_t id = 0;
    EXPECT_EQ(TarnAgent_CreatePartition(nullptr, 4096, 64, &id), EINVAL);
    EXPECT_EQ(TarnAgent_CreatePartition("x", 4096, 63, &id), EINVAL);
    EXPECT_EQ(TarnAgent_CreatePartition("x", 32, 64, &id), EINVAL);
    EXPECT_EQ(TarnAgent_CreatePartition("x", uint64_t{1} << 62, 64, &id), ENOMEM);
    EXPECT_EQ(TarnAgent_OpenMemHandle(4711, "x", &id), ENOENT);
    EXPECT_EQ(TarnAgent_OpenMemHandle(partition_, "", &id), EINVAL);
    EXPECT_EQ(TarnAgent_DestroyPartition(partition_), EBUSY);
    EXPECT_EQ(TarnAgent_DestroyPartition(4711), ENOENT);
    Allocate(first_, 1);
    EXPECT_EQ(TarnAgent_CloseMemHandle(first_), EBUSY);
    EXPECT_EQ(TarnAgent_Alloc(4711, 1), nullptr);
    EXPECT_EQ(TarnAgent_Alloc(first_, SIZE_MAX), nullptr);
    EXPECT_EQ(TarnAgent_AccountAlloc(first_, this, 1), EINVAL);
    TarnAgent_Free(nullptr);
}

TEST_F(AgentMemoryTest, KnowsWhereMemoryWasAllocated) {
    Allocate(first_, 100);
    Allocate(first_, 200);
    void *const elsewhere = TarnAgent_Alloc(first_, 50);
    const auto stack = [&](uint32_t index) {
        return Ask<Tarn_sys_diag_MemHandInfoOut>("MemHandleCallStack", Tarn_sys_diag_MemHandInfo{first_, index});
    };
    const auto site = stack(0);
    EXPECT_EQ(site->uiResult, 0);
    EXPECT_GE(site->uiStackTotal, 2);
    EXPECT_STREQ(site->szHandleName, "first");
    ASSERT_GT(site->uiAddrNum, 2);
    Tarn_sys_diag_CallStackInput addresses{self_, {}};
    memcpy(addresses.aullStackAddr, site->aullStackAddr, sizeof addresses.aullStackAddr);
    const auto names = Ask<Tarn_sys_diag_CallStackOutput>("GetCallStackFunction", addresses);
    ASSERT_EQ(names.Status(), 0) << names.Text();
    EXPECT_TRUE(Has(names->astFuncName[0].szFuncName, "AllocateForTheTest+0x"));
    EXPECT_STREQ(names->astFuncName[31].szFuncName, "");
    size_t ofThisTest = 0;
    for (const Tarn_sys_diag_FuncName &function : names->astFuncName) {
        EXPECT_FALSE(Has(function.szFuncName, "_Z")) << function.szFuncName;
        ofThisTest += Has(function.szFuncName, "KnowsWhereMemoryWasAllocated_Test::TestBody()+0x") ? 1 : 0;
    }
    EXPECT_EQ(ofThisTest, 1);
    EXPECT_EQ(stack(site->uiStackTotal)->uiResult, ENOENT);
    TarnAgent_Free(elsewhere);
    EXPECT_EQ(stack(0)->uiStackTotal, site->uiStackTotal - 1);
    const auto foreign =
        Ask<Tarn_sys_diag_CallStackOutput>("GetCallStackFunction", Tarn_sys_diag_CallStackInput{1, {}});
    EXPECT_EQ(foreign.Status(), EINVAL);
}

TEST_F(AgentMemoryTest, FindsDamage) {
    const uint32_t before = Damage(damage_report::kDamages).number;
    char *const behind = Allocate(first_, 100);
    char *const ahead = Allocate(second_, 40);
    EXPECT_EQ(Scan(damage_scan::kOnce), 0);
    EXPECT_EQ(Damage(damage_report::kDamages).number, before);
    const char kept = behind[102];
    behind[102] = 1;
    EXPECT_EQ(Scan(damage_scan::kOnce), 0);
    const Report report = Damage(damage_report::kDamages);
    EXPECT_EQ(report.number, before + 1);
    const std::string start = "block 0x" + [&] {
        char text[20];
        snprintf(text, sizeof text, "%lx", reinterpret_cast<unsigned long>(behind));
        return std::string(text);
    }();
    EXPECT_TRUE(Has(report.text, start + " of 100 bytes, handle " + std::to_string(first_) + " \"first\""))
        << report.text;
    EXPECT_TRUE(Has(report.text, "allocated by AllocateForTheTest+0x")) << report.text;
    EXPECT_TRUE(Has(report.text, "overwritten 2 bytes behind its end")) << report.text;
    behind[102] = kept;

    ahead[-3] = 1;
    EXPECT_EQ(Scan(damage_scan::kOn), 0);
    EXPECT_TRUE(kit::Eventually([&] { return Damage(damage_report::kDamages).number == before + 2; }));
    EXPECT_TRUE(Has(Damage(damage_report::kBoth).text, "overwritten 3 bytes before its start"));
    EXPECT_EQ(Scan(damage_scan::kOff), 0);
    EXPECT_EQ(Scan(3), EINVAL);
    EXPECT_EQ(Damage(3).result, EINVAL);

    void *const block = TarnAgent_Alloc(first_, 1);
    TarnAgent_Free(block);
    TarnAgent_Free(block);
    EXPECT_TRUE(Has(Damage(damage_report::kDamages).text, "freed twice"));
}

TEST_F(AgentMemoryTest, FindsBlocksOfEndedThreads) {
    uint32_t tid = 0;
    std::thread([&] {
        Allocate(first_, 77);
        tid = static_cast<uint32_t>(gettid());
    }).join();
    Allocate(first_, 5);
    EXPECT_EQ(Damage(damage_report::kHostages).number, 0) << "nobody has looked";
    EXPECT_EQ(kit::Oneway<Unit>(client_, "TarnSysdiagAgent", self_, "TarnDetectMemHostage", Tarn_sys_diag_None{}), 0);
    EXPECT_TRUE(kit::Eventually([&] { return Damage(damage_report::kHostages).number == 1; }));
    const std::string text = Damage(damage_report::kHostages).text;
    EXPECT_TRUE(Has(text, "of 77 bytes")) << text;
    EXPECT_TRUE(Has(text, "its thread " + std::to_string(tid) + " has ended")) << text;
}

TEST_F(AgentMemoryTest, RunsDiagnosisCommands) {
    char *const old = Allocate(first_, 33);
    EXPECT_EQ(Diagnose(memory_command::kSummary).number, 1);
    EXPECT_TRUE(Has(Diagnose(memory_command::kSummary).text, " test "));
    EXPECT_EQ(Diagnose(memory_command::kMark).result, 0);
    Allocate(second_, 44);
    Allocate(second_, 44);
    EXPECT_EQ(Diagnose(memory_command::kBlocks).number, 3);
    EXPECT_EQ(Diagnose(memory_command::kBlocks, std::to_string(second_)).number, 2);
    EXPECT_EQ(Diagnose(memory_command::kBlocks, "many").result, EINVAL);
    const Report since = Diagnose(memory_command::kSince);
    EXPECT_GE(since.number, 1);
    EXPECT_LE(since.number, 2);
    EXPECT_TRUE(Has(since.text, "AllocateForTheTest+0x")) << since.text;
    EXPECT_FALSE(Has(since.text, " 33 "));

    strcpy(old, "Hello");
    char address[20];
    snprintf(address, sizeof address, "%p", static_cast<void *>(old + 3));
    const Report look = Diagnose(memory_command::kLook, address);
    EXPECT_EQ(look.result, 0);
    EXPECT_TRUE(Has(look.text, "48 65 6c 6c 6f 00")) << look.text;
    EXPECT_EQ(Diagnose(memory_command::kLook, "0x10").result, ENOENT);
    EXPECT_EQ(Diagnose(4711).result, EINVAL);
}

TEST_F(AgentMemoryTest, TellsTheApplicationsMemoryByUnitBlockAndModule) {
    uint32_t accounted = 0, handle = 0;
    ASSERT_EQ(TarnAgent_CreatePartition("accounted", 0, 0, &accounted), 0);
    ASSERT_EQ(TarnAgent_OpenMemHandle(accounted, "own", &handle), 0);
    int object = 0;
    EXPECT_EQ(TarnAgent_AccountAlloc(handle, &object, sizeof object), 0);
    EXPECT_EQ(TarnAgent_AccountAlloc(handle, &object, sizeof object), EEXIST);
    EXPECT_EQ(TarnAgent_Alloc(handle, 1), nullptr);
    Allocate(first_, 300);

    Tarn_sys_diag_GetAppMemInfoInput query{};
    const auto units = [&] { return Ask<Tarn_sys_diag_GetAppMemUnitInfoOutput>("TarnGetAppMemUnitInfo", query); };
    EXPECT_EQ(units()->uiUnitNum, 3);
    query.uiStart = 1;
    query.uiMaxNum = 2;
    EXPECT_EQ(units()->uiTotalNum, 3);
    EXPECT_EQ(units()->uiUnitNum, 2);
    EXPECT_STREQ(units()->pstUnit[0].szUnitName, "accounted");
    query = {};
    kit::Set(query.szAppName, "agent_memory_*");
    EXPECT_EQ(units()->uiUnitNum, 3);
    kit::Set(query.szAppName, "some other app");
    EXPECT_EQ(units()->uiUnitNum, 0);
    query = {};
    kit::Set(query.szUnitName, "acc*");
    const auto one = units();
    ASSERT_EQ(one->uiUnitNum, 1);
    EXPECT_EQ(one->pstUnit[0].ullUsedBytes, sizeof object);
    query = {};
    query.uiUnitId = memory_unit::kMalloc;
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // their allocators tell nothing
    const uint64_t before = units()->pstUnit[0].ullUsedBytes;
    const std::vector<char> big(8 << 20);
    kit::Keep(big);
    EXPECT_GE(units()->pstUnit[0].ullUsedBytes, before + (8 << 20));
    EXPECT_GE(units()->pstUnit[0].ullPeakBytes, units()->pstUnit[0].ullUsedBytes);
#endif

    query = {};
    const auto text = [&](uint32_t type) {
        query.uiQueryType = type;
        const auto answer =
            Ask<Tarn_sys_diag_GetAppMemDetailOrModuleInfoOutput>("TarnGetAppMemDetailOrModuleInfo", query);
        return Report{answer.Status(), answer->uiValue1,
                      std::string(reinterpret_cast<const char *>(answer->pucInfo), answer->uiInfoLen)};
    };
    EXPECT_EQ(text(app_memory::kDetails).number, 2);
    EXPECT_TRUE(Has(text(app_memory::kDetails).text, "AllocateForTheTest"));
    EXPECT_EQ(text(app_memory::kModules).number, 1);
    EXPECT_TRUE(Has(text(app_memory::kModules).text, "agent_memory_test"));
    kit::Set(query.szModuleName, "no-such-module");
    EXPECT_EQ(text(app_memory::kDetails).number, 0);
    query.uiPid = 1;
    EXPECT_EQ(text(app_memory::kDetails).result, EINVAL);

    EXPECT_EQ(TarnAgent_AccountFree(&object), 0);
    EXPECT_EQ(TarnAgent_AccountFree(&object), ENOENT);
    EXPECT_EQ(TarnAgent_CloseMemHandle(handle), 0);
    EXPECT_EQ(TarnAgent_DestroyPartition(accounted), 0);
}

TEST_F(AgentMemoryTest, ServesManyThreadsWhileItIsAsked) {
    std::atomic<bool> stop = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            while (!stop) {
                void *const block = TarnAgent_Alloc(first_, 100);
                if (block != nullptr) {
                    memset(block, 0x55, 100);
                    TarnAgent_Free(block);
                }
            }
        });
    }
    const uint32_t before = Damage(damage_report::kDamages).number;
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(Scan(damage_scan::kOnce), 0);
        EXPECT_EQ(Partition().Status(), 0);
        EXPECT_EQ(Diagnose(memory_command::kBlocks).result, 0);
    }
    stop = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(Damage(damage_report::kDamages).number, before);
    EXPECT_EQ(Partition()->ullUsedBytes, 0);
}

// The same through the daemon, of an application of its own.
class RelayedMemoryTest : public kit::DaemonTest<Unit> {
protected:
    void SetUp() override {
        kit::DaemonTest<Unit>::SetUp();
        agent_ = std::make_unique<kit::Process>(
            dir_.Path(), std::vector<std::string>{TARN_AGENT, "--name", "example", "--run-dir", dir_.Path()});
        pid_ = agent_->Pid();
        EXPECT_TRUE(kit::Eventually([&] { return kit::TakesCalls(client_, "TarnSysdiagAgent", pid_); }));
    }
    void Command(std::string line) {
        EXPECT_EQ(kit::Oneway<Unit>(client_, "TarnSysdiagTarnd", 0, "DBGCmdExecShowByTarnd",
                                    Tarn_sys_diag_DbgCmdShowByTarndInput{line.data(), pid_}),
                  0);
        EXPECT_TRUE(kit::Eventually([&] {
            return Call<Tarn_sys_diag_DiagResult>("DBGCmdExecResultGetByTarnd",
                                                  Tarn_sys_diag_DbgCmdResultGetByTarndInput{pid_})
                       ->uiResult == 0;
        }));
    }

    std::unique_ptr<kit::Process> agent_;
    uint32_t pid_ = 0;
};

TEST_F(RelayedMemoryTest, TellsALeakAndADamage) {
    Command("leak 20");
    const auto handles = Call<Tarn_sys_diag_GetMirelMemHandleInfoOutput>(
        "GetMirelMemHandleInfoByTarnd", Tarn_sys_diag_GetMirelMemHandleInfoInput{pid_});
    ASSERT_EQ(handles->uiHandleNum, 3);
    EXPECT_STREQ(handles->pstHandle[1].szName, "leaks");
    EXPECT_EQ(handles->pstHandle[1].ullValue, 20 * 200);
    const auto records = Call<Tarn_sys_diag_ProcPtRecodResult>(
        "GetProcPartitionMemHandleRecodByTarnd",
        Tarn_sys_diag_ProcPtRecodByTarndInput{0, handles->pstHandle[1].uiValue, 0, 0, 0, pid_});
    ASSERT_EQ(records->uiRecodNum, 1);
    EXPECT_EQ(records->pstRecod[0].uiBlockNum, 20 * 4);
    EXPECT_TRUE(Has(records->pstRecod[0].pcOwner, "tarn-agent"));
    EXPECT_TRUE(kit::Eventually([&] {
        const auto partition = Call<Tarn_sys_diag_GetMirelMemPtInfoOutput>(
            "GetMirelMemPtInfoByTarnd", Tarn_sys_diag_GetMirelMemPtInfoByTarndInput{1, pid_});
        EXPECT_STREQ(partition->szPtName, "buffers");
        return partition->pstBlockClass[2].uiPeakNum == 21;
    })) << "with the one that the counting thread takes now and then";
    const auto blocks = Call<Tarn_sys_diag_mem_PRCOUT>(
        "MemDiagMaByTarnd", Tarn_sys_diag_mem_RPCIN_input{memory_command::kBlocks, 0, nullptr, pid_});
    EXPECT_TRUE(Has(std::string(reinterpret_cast<const char *>(blocks->pucData), blocks->uiDataLen), "LeakBlocks"));

    Command("damage");
    EXPECT_EQ(
        Call<Tarn_sys_diag_MemDmgScanOut>("SetMemDmgScanTarnd", Tarn_sys_diag_MemDmgScanInTarnd{2, pid_})->uiResult, 0);
    const auto refused =
        Call<Tarn_sys_diag_MemDmgScanOut>("SetMemDmgScanTarnd", Tarn_sys_diag_MemDmgScanInTarnd{9, pid_});
    EXPECT_EQ(refused->uiResult, EINVAL);
    EXPECT_EQ(refused.Explanation(), "scan (uiScanSwitch) is 9, expected off (0), on (1) or once (2)");
    const auto damage =
        Call<Tarn_sys_diag_MemDmgInfoOut>("GetMemDmgInfoTarnd", Tarn_sys_diag_MemDmgInfoInTarnd{0, pid_});
    EXPECT_EQ(damage->uiValue1, 1);
    EXPECT_TRUE(
        Has(std::string(reinterpret_cast<const char *>(damage->pucInfo), damage->uiInfoLen), "\"leaks\", thread"));

    const auto text = [&](uint32_t type) {
        const auto answer =
            Call<Tarn_sys_diag_AppMemInfoOutput>("AppMemInfo", Tarn_sys_diag_AppMemInfoInput{pid_, type});
        EXPECT_EQ(answer.Status(), 0) << answer.Text();
        return std::string(answer->szInfo);
    };
    EXPECT_TRUE(Has(text(app_memory::kUnits), "buffers")) << text(app_memory::kUnits);
    const std::string units = text(app_memory::kUnits), ofSize = "blocks of 256 bytes: ";
    uint32_t used = 0, unused = 0, most = 0;
    ASSERT_EQ(sscanf(units.c_str() + std::min(units.find(ofSize) + ofSize.size(), units.size()),
                     "%" SCNu32 " used, %" SCNu32 " free, %" SCNu32 " at most", &used, &unused, &most),
              3)
        << units;
    EXPECT_GE(used, 20U) << "as many leak";
    EXPECT_LT(unused, used) << units;
    EXPECT_GE(most, used) << units;
    EXPECT_TRUE(Has(text(app_memory::kDetails), "LeakBlocks"));
    EXPECT_TRUE(Has(text(app_memory::kModules), "tarn-agent"));
    EXPECT_TRUE(Has(text(app_memory::kHolders), "leaks")) << text(app_memory::kHolders);
    EXPECT_TRUE(Has(text(app_memory::kHolders), " sites: LeakBlocks")) << text(app_memory::kHolders);
    const auto wrong = Call<Tarn_sys_diag_AppMemInfoOutput>("AppMemInfo", Tarn_sys_diag_AppMemInfoInput{pid_, 9});
    EXPECT_EQ(wrong.Status(), EINVAL);
    const auto nobody = Call<Tarn_sys_diag_AppMemInfoOutput>("AppMemInfo", Tarn_sys_diag_AppMemInfoInput{1, 0});
    EXPECT_EQ(nobody.Status(), ESRCH);
}

} // namespace
