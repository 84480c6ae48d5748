// Health, where it takes a system: the kernel's own files, a disk that is full, and agents that hang.
#include "host/answer/unit.h"

TARN_UNIT()

#include "host/meaning/choices.h"
#include "tarn_sysdiag/types/tarnd.h"

#include <atomic>

#include "tests/host/daemon_kit.h"
#include "tests/host/fake_agent.h"
#include "tests/host/small_disk.h"

namespace {

namespace health_level = host::meaning::health_level;
namespace system_health_item = host::meaning::system_health_item;
namespace system_health_level = host::meaning::system_health_level;

using namespace std::chrono_literals;

struct Item {
    uint32_t level;
    std::string name;
    std::string source;
    std::string time;
    std::string text;
};

class HealthTest : public kit::DaemonTest<Unit> {
protected:
    std::vector<std::string> Options() const override {
        return {"--state-dir", dir_.Path() / "state", "--sample-interval", "200"};
    }

    using Answer = kit::Answer<Unit, Tarn_sys_diag_PadsSystemHealthResult>;
    Answer Get(uint8_t function = 0, uint32_t pid = 0) {
        return Call<Tarn_sys_diag_PadsSystemHealthResult>("TarnPadsGetSystemHealthInfoByTarnd",
                                                          Tarn_sys_diag_PadsSystemHealthInput{function, pid});
    }
    std::vector<Item> Items(uint8_t function = 0) {
        const Answer answer = Get(function);
        EXPECT_EQ(answer.Status(), 0) << answer.Text();
        std::vector<Item> items;
        for (uint32_t i = 0; i < answer->uiHealthInfoNum; ++i) {
            const Tarn_sys_diag_SysHealthInfo &info = answer->pstHealthInfo[i];
            items.push_back({info.ucValue1, info.acValue1, info.acValue2, info.acValue3, info.acValue4});
        }
        return items;
    }
    Item Find(const std::string &name) {
        for (const Item &item : Items()) {
            if (item.name == name) {
                return item;
            }
        }
        return {99, "", "", "", "no item " + name};
    }

    void SwitchAll(uint8_t on) {
        EXPECT_EQ(kit::Oneway<Unit>(client_, "TarnSysdiagTarnd", 0, "TarnPadsSetPadsGlobalSwitchByTarnd",
                                    Tarn_sys_diag_PadsGlobalSwitch{on}),
                  0);
    }
    void Switch(uint8_t function, uint8_t on, uint32_t limit) {
        EXPECT_EQ(kit::Oneway<Unit>(client_, "TarnSysdiagTarnd", 0, "TarnPadsSetPadsAppFunSwitchByTarnd",
                                    Tarn_sys_diag_PadsAppFunSwitch{function, on, limit}),
                  0);
    }

    const uint32_t pid_ = static_cast<uint32_t>(getpid());
};

// A file system of the test's own in the place of the kernel's files.
class PressureTest : public HealthTest {
protected:
    void SetUp() override {
        if (!std::filesystem::exists("/proc/pressure")) {
            GTEST_SKIP() << "this kernel has none";
        }
        for (const char *const directory : {"/proc/pressure", "/sys/fs/cgroup"}) {
            disks_.push_back(std::make_unique<kit::SmallDisk>(directory, "64k"));
            if (!disks_.back()->Mounted()) {
                GTEST_SKIP() << "may not mount";
            }
        }
        HealthTest::SetUp();
    }
    std::vector<std::unique_ptr<kit::SmallDisk>> disks_;
};

TEST_F(PressureTest, IsUnknownWithoutTheKernelsFiles) {
    for (const char *const resource : {"cpu-pressure", "memory-pressure", "io-pressure"}) {
        EXPECT_EQ(Find(resource).level, system_health_level::kUnknown);
        EXPECT_NE(Find(resource).text.find("/proc/pressure/"), std::string::npos) << Find(resource).text;
        EXPECT_NE(Find(resource).text.find("No such file"), std::string::npos) << Find(resource).text;
    }
    EXPECT_LT(Get()->uiValue1, system_health_level::kUnknown) << "the worst of what is known";
    EXPECT_NE(Find("memory").level, system_health_level::kUnknown) << "the other items are as ever";
}

TEST_F(PressureTest, IsWhatTheKernelsFilesSay) {
    const auto write = [](const std::string &path, const std::string &text) { std::ofstream(path) << text; };
    write("/proc/pressure/cpu", "some avg10=29.99 avg60=1.00 avg300=0.50 total=1\nfull avg10=99.00\n");
    write("/proc/pressure/memory", "some avg10=10.00 avg60=0.00\n");
    write("/proc/pressure/io", "full avg10=1.00\n");
    EXPECT_EQ(Find("cpu-pressure").text.substr(0, 6), "30.0 %");
    EXPECT_EQ(Find("cpu-pressure").level, health_level::kDegraded) << "at the limit";
    EXPECT_EQ(Find("memory-pressure").text.substr(0, 6), "10.0 %");
    write("/proc/pressure/memory", "some avg10=55.00\n");
    EXPECT_EQ(Find("memory-pressure").level, health_level::kBad) << "from the middle to the whole";
    EXPECT_EQ(Find("io-pressure").level, system_health_level::kUnknown) << "no line for some";
    write("/sys/fs/cgroup/cpu.pressure", "some avg10=1.20\n");
    std::filesystem::remove("/proc/pressure/cpu");
    EXPECT_EQ(Find("cpu-pressure").text.substr(0, 5), "1.2 %") << "the root group's";
}

TEST_F(HealthTest, TellsThatADiskIsFull) {
    EXPECT_EQ(daemon_->Stop(), 0);
    const kit::SmallDisk disk(logs_, "256k,nr_inodes=20");
    StartDaemon(); // which sees the disk
    if (!disk.Mounted()) {
        GTEST_SKIP() << "may not mount";
    }
    const std::string name = "disk " + logs_.string();
    EXPECT_EQ(Find(name).level, health_level::kGood) << Find(name).text;
    disk.Fill();
    EXPECT_EQ(Find(name).level, health_level::kBad);
    EXPECT_TRUE(Find(name).text.starts_with("100.0 % of the space in use, 0 MiB free")) << Find(name).text;
    EXPECT_EQ(Get(system_health_item::kDisk)->uiValue1, health_level::kBad);
    disk.Empty();
    EXPECT_EQ(Find(name).level, health_level::kGood) << Find(name).text;
    for (int i = 0; std::ofstream(logs_ / std::to_string(i)).is_open(); ++i) {
    }
    EXPECT_EQ(Find(name).level, health_level::kBad);
    EXPECT_TRUE(Find(name).text.starts_with("100.0 % of the number of files in use")) << Find(name).text;
}

TEST_F(HealthTest, TellsThatADirectoryIsGone) {
    std::filesystem::remove_all(logs_);
    const Item disk = Find("disk " + logs_.string());
    EXPECT_EQ(disk.level, system_health_level::kUnknown);
    EXPECT_NE(disk.text.find("No such file or directory"), std::string::npos) << disk.text;
}

TEST_F(HealthTest, FindsAnAgentThatHangs) {
    kit::Process agent(dir_.Path(), {TARN_AGENT, "--name", "sleepy", "--run-dir", dir_.Path()});
    const std::string name = "agent of process " + std::to_string(agent.Pid());
    ASSERT_TRUE(kit::Eventually([&] { return Find(name).text.starts_with("answered after "); })) << daemon_->Err();
    EXPECT_EQ(Find(name).source, "sleepy");
    agent.Signal(SIGSTOP);
    EXPECT_TRUE(kit::Eventually([&] { return Find(name).level == health_level::kBad; }));
    EXPECT_TRUE(Find(name).text.starts_with("does not answer")) << Find(name).text;
    EXPECT_EQ(Get()->uiValue1, health_level::kBad);
    agent.Signal(SIGCONT);
    EXPECT_TRUE(kit::Eventually([&] { return Find(name).text.starts_with("answered after "); }));
    agent.Stop();
    EXPECT_TRUE(kit::Eventually([&] { return Find(name).level == 99; }));
}

TEST_F(HealthTest, AsksTheAgents) {
    FakeAgent agent(dir_.Path());
    Tarn_sys_diag_SysHealthInfo item{};
    item.ucValue1 = health_level::kDegraded;
    kit::Set(item.acValue1, "queue");
    kit::Set(item.acValue4, "900 of 1000");
    agent.On<Tarn_sys_diag_None, Tarn_sys_diag_PadsSystemHealthResult>("TarnPadsGetProcSystemHealthInfo",
                                                                       [&](const auto &, auto &reply) {
                                                                           reply.uiValue1 = item.ucValue1;
                                                                           reply.uiHealthInfoNum = 1;
                                                                           reply.pstHealthInfo = &item;
                                                                       });
    const auto relayed = Get(0, pid_);
    ASSERT_EQ(relayed.Status(), 0) << relayed.Text();
    ASSERT_EQ(relayed->uiHealthInfoNum, 1);
    EXPECT_EQ(std::string(relayed->pstHealthInfo[0].acValue1), "queue");
    EXPECT_EQ(Get(0, kit::EndedPid()).Status(), ESRCH);

    ASSERT_EQ(FakeAgent::Register(client_, "busy"), 0);
    const std::string name = "agent of process " + std::to_string(pid_);
    EXPECT_TRUE(kit::Eventually([&] { return Find(name).text == "queue: 900 of 1000"; })) << Find(name).text;
    EXPECT_EQ(Find(name).level, health_level::kDegraded);
}

TEST_F(HealthTest, BringsTheSwitchesToTheAgents) {
    std::atomic<int> all = -1, limit = -1, function = -1;
    FakeAgent agent(dir_.Path());
    agent.OnOneway<Tarn_sys_diag_PadsGlobalSwitch>("TarnPadsSetProcPadsGlobalSwitch",
                                                   [&](const auto &request) { all = request.ucGlobalSwitch; });
    agent.OnOneway<Tarn_sys_diag_PadsAppFunSwitch>("TarnPadsSetProcPadsAppFunSwitch", [&](const auto &request) {
        function = request.ucFunction;
        limit = static_cast<int>(request.uiValue);
    });
    SwitchAll(0);
    ASSERT_TRUE(Logged("health: off"));
    ASSERT_EQ(FakeAgent::Register(client_, "later"), 0);
    EXPECT_TRUE(kit::Eventually([&] { return all == 0; }));
    SwitchAll(1);
    EXPECT_TRUE(kit::Eventually([&] { return all == 1; }));
    Switch(5, 1, 77);
    EXPECT_TRUE(kit::Eventually([&] { return function == 5 && limit == 77; }));
}

} // namespace
