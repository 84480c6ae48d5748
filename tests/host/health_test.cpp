// Health: what runs short according to other sources, agents that hang, CPU events, and who is told.
#include "host/answer/unit.h"

TARN_UNIT()

#include "types/tarnd.h"

#include <atomic>
#include <cmath>
#include <numeric>

#include "host/values/agent.h"
#include "host/values/daemon.h"
#include "tests/host/daemon_kit.h"
#include "tests/host/fake_agent.h"
#include "tests/host/small_disk.h"

namespace {

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

double Percent(const std::string &text) {
    return std::stod(text);
}

double MemoryUse() {
    const std::string text = kit::TextOfFile("/proc/meminfo");
    const auto field = [&](const std::string &key) { return std::stod(text.substr(text.find(key) + key.size())); };
    return 100 - field("MemAvailable:") * 100 / field("MemTotal:");
}

// Busy and total ticks of all CPUs.
std::pair<double, double> BusyAndTotal() {
    double ticks[8] = {};
    EXPECT_EQ(sscanf(kit::TextOfFile("/proc/stat").c_str(), "cpu %lf %lf %lf %lf %lf %lf %lf %lf", &ticks[0], &ticks[1],
                     &ticks[2], &ticks[3], &ticks[4], &ticks[5], &ticks[6], &ticks[7]),
              8);
    const double idle = ticks[3] + ticks[4], total = std::accumulate(std::begin(ticks), std::end(ticks), 0.0);
    return {total - idle, total};
}

TEST_F(HealthTest, TellsHowTheSystemIs) {
    const auto [busyBefore, totalBefore] = BusyAndTotal();
    std::this_thread::sleep_for(3s);
    const double cpu = Percent(Find("cpu").text); // of the time since the daemon's start, little before
    const auto [busy, total] = BusyAndTotal();
    EXPECT_NEAR(cpu, (busy - busyBefore) * 100 / (total - totalBefore), 20);
    EXPECT_NEAR(Percent(Find("memory").text), MemoryUse(), 5);
    double load = 0;
    ASSERT_EQ(sscanf(kit::TextOfFile("/proc/loadavg").c_str(), "%lf", &load), 1);
    EXPECT_NEAR(Percent(Find("load").text), load, 1 + load / 4);
    unsigned long open = 0, unused = 0, most = 0;
    ASSERT_EQ(sscanf(kit::TextOfFile("/proc/sys/fs/file-nr").c_str(), "%lu %lu %lu", &open, &unused, &most), 3);
    EXPECT_NEAR(Percent(Find("descriptors").text), static_cast<double>(open) * 100 / static_cast<double>(most), 1);

    const Item disk = Find("disk " + logs_.string());
    const std::unique_ptr<FILE, int (*)(FILE *)> df(
        popen(("df --output=pcent " + logs_.string() + " | tail -n 1").c_str(), "r"), pclose);
    double used = 0;
    ASSERT_EQ(fscanf(df.get(), "%lf", &used), 1);
    EXPECT_NEAR(Percent(disk.text), used, 2) << disk.text;
    EXPECT_EQ(disk.source, "system");
    EXPECT_EQ(disk.time.size(), 14);
    const time_t now = time(nullptr);
    char today[9] = "";
    strftime(today, sizeof today, "%Y%m%d", localtime(&now));
    EXPECT_EQ(disk.time.substr(0, 8), today);
}

TEST_F(HealthTest, ReadsThePressure) {
    for (const char *const resource : {"cpu", "memory", "io"}) {
        SCOPED_TRACE(resource);
        const auto now = [&] {
            double percent = -1;
            return sscanf(kit::TextOfFile(std::string("/proc/pressure/") + resource).c_str(), "some avg10=%lf",
                          &percent) == 1
                       ? percent
                       : -1;
        };
        const double before = now();
        const Item item = Find(std::string(resource) + " pressure");
        const double after = now();
        if (before < 0) {
            EXPECT_EQ(item.level, TARND_HEALTH_UNKNOWN) << "this kernel has none";
            EXPECT_NE(item.text, "");
            continue;
        }
        EXPECT_GE(Percent(item.text), std::min(before, after) - 1) << item.text;
        EXPECT_LE(Percent(item.text), std::max(before, after) + 1) << item.text;
    }
}

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
    for (const char *const resource : {"cpu pressure", "memory pressure", "io pressure"}) {
        EXPECT_EQ(Find(resource).level, TARND_HEALTH_UNKNOWN);
        EXPECT_NE(Find(resource).text.find("/proc/pressure/"), std::string::npos) << Find(resource).text;
        EXPECT_NE(Find(resource).text.find("No such file"), std::string::npos) << Find(resource).text;
    }
    EXPECT_LT(Get()->uiValue1, TARND_HEALTH_UNKNOWN) << "the worst of what is known";
    EXPECT_NE(Find("memory").level, TARND_HEALTH_UNKNOWN) << "the other items are as ever";
}

TEST_F(PressureTest, IsWhatTheKernelsFilesSay) {
    const auto write = [](const std::string &path, const std::string &text) { std::ofstream(path) << text; };
    write("/proc/pressure/cpu", "some avg10=29.99 avg60=1.00 avg300=0.50 total=1\nfull avg10=99.00\n");
    write("/proc/pressure/memory", "some avg10=10.00 avg60=0.00\n");
    write("/proc/pressure/io", "full avg10=1.00\n");
    EXPECT_EQ(Find("cpu pressure").text.substr(0, 6), "30.0 %");
    EXPECT_EQ(Find("cpu pressure").level, TARN_AGENT_HEALTH_DEGRADED) << "at the limit";
    EXPECT_EQ(Find("memory pressure").text.substr(0, 6), "10.0 %");
    write("/proc/pressure/memory", "some avg10=55.00\n");
    EXPECT_EQ(Find("memory pressure").level, TARN_AGENT_HEALTH_BAD) << "from the middle to the whole";
    EXPECT_EQ(Find("io pressure").level, TARND_HEALTH_UNKNOWN) << "no line for some";
    write("/sys/fs/cgroup/cpu.pressure", "some avg10=1.20\n");
    std::filesystem::remove("/proc/pressure/cpu");
    EXPECT_EQ(Find("cpu pressure").text.substr(0, 5), "1.2 %") << "the root group's";
}

TEST_F(HealthTest, TellsThatADiskIsFull) {
    EXPECT_EQ(daemon_->Stop(), 0);
    const kit::SmallDisk disk(logs_, "256k,nr_inodes=20");
    StartDaemon(); // which sees the disk
    if (!disk.Mounted()) {
        GTEST_SKIP() << "may not mount";
    }
    const std::string name = "disk " + logs_.string();
    EXPECT_EQ(Find(name).level, TARN_AGENT_HEALTH_GOOD) << Find(name).text;
    disk.Fill();
    EXPECT_EQ(Find(name).level, TARN_AGENT_HEALTH_BAD);
    EXPECT_TRUE(Find(name).text.starts_with("100.0 % of the space in use, 0 MiB free")) << Find(name).text;
    EXPECT_EQ(Get(TARND_HEALTH_DISK)->uiValue1, TARN_AGENT_HEALTH_BAD);
    disk.Empty();
    EXPECT_EQ(Find(name).level, TARN_AGENT_HEALTH_GOOD) << Find(name).text;
    for (int i = 0; std::ofstream(logs_ / std::to_string(i)).is_open(); ++i) {
    }
    EXPECT_EQ(Find(name).level, TARN_AGENT_HEALTH_BAD);
    EXPECT_TRUE(Find(name).text.starts_with("100.0 % of the number of files in use")) << Find(name).text;
}

TEST_F(HealthTest, TellsThatADirectoryIsGone) {
    std::filesystem::remove_all(logs_);
    const Item disk = Find("disk " + logs_.string());
    EXPECT_EQ(disk.level, TARND_HEALTH_UNKNOWN);
    EXPECT_NE(disk.text.find("No such file or directory"), std::string::npos) << disk.text;
}

TEST_F(HealthTest, FollowsSwitchesAndLimits) {
    Switch(TARND_HEALTH_MEMORY, 1, 999);
    EXPECT_TRUE(kit::Eventually([&] { return Find("memory").level == TARN_AGENT_HEALTH_GOOD; }));
    Switch(TARND_HEALTH_MEMORY, 1, 1);
    EXPECT_TRUE(kit::Eventually([&] { return Find("memory").level == TARN_AGENT_HEALTH_DEGRADED; }))
        << "more than a permille, less than half";
    EXPECT_GE(Get()->uiValue1, TARN_AGENT_HEALTH_DEGRADED);
    ASSERT_EQ(Items(TARND_HEALTH_MEMORY).size(), 1);
    EXPECT_EQ(Items(TARND_HEALTH_MEMORY)[0].name, "memory");
    EXPECT_EQ(Get(TARND_HEALTH_LAST + 1).Status(), EINVAL);

    Switch(TARND_HEALTH_LOAD, 0, 0);
    EXPECT_TRUE(kit::Eventually([&] { return Find("load").level == 99; }));
    daemon_->Stop();
    StartDaemon();
    EXPECT_EQ(Find("load").level, 99) << "kept";
    EXPECT_EQ(Find("memory").level, TARN_AGENT_HEALTH_DEGRADED);

    EXPECT_EQ(Get()->uiValue2, 1);
    SwitchAll(0);
    EXPECT_TRUE(kit::Eventually([&] { return Items().empty(); }));
    EXPECT_EQ(Get()->uiValue2, 0);
    SwitchAll(1);
    EXPECT_TRUE(kit::Eventually([&] { return !Items().empty(); }));
    Switch(0, 0, 0);
    EXPECT_TRUE(kit::Eventually([&] { return Items().empty(); }));

    SwitchAll(2);
    EXPECT_TRUE(Logged("ucGlobalSwitch is 2"));
    Switch(TARND_HEALTH_LAST + 1, 1, 0);
    EXPECT_TRUE(Logged("ucFunction is 139"));
    Switch(TARND_HEALTH_DISK, 1, 1001);
    EXPECT_TRUE(Logged("uiValue is 1001"));
}

TEST_F(HealthTest, FindsAnAgentThatHangs) {
    kit::Process agent(dir_.Path(), {TARN_AGENT, "--name", "sleepy", "--run-dir", dir_.Path()});
    const std::string name = "agent of process " + std::to_string(agent.Pid());
    ASSERT_TRUE(kit::Eventually([&] { return Find(name).text.starts_with("answered after "); })) << daemon_->Err();
    EXPECT_EQ(Find(name).source, "sleepy");
    agent.Signal(SIGSTOP);
    EXPECT_TRUE(kit::Eventually([&] { return Find(name).level == TARN_AGENT_HEALTH_BAD; }));
    EXPECT_TRUE(Find(name).text.starts_with("does not answer")) << Find(name).text;
    EXPECT_EQ(Get()->uiValue1, TARN_AGENT_HEALTH_BAD);
    agent.Signal(SIGCONT);
    EXPECT_TRUE(kit::Eventually([&] { return Find(name).text.starts_with("answered after "); }));
    agent.Stop();
    EXPECT_TRUE(kit::Eventually([&] { return Find(name).level == 99; }));
}

TEST_F(HealthTest, AsksTheAgents) {
    FakeAgent agent(dir_.Path());
    Tarn_sys_diag_SysHealthInfo item{};
    item.ucValue1 = TARN_AGENT_HEALTH_DEGRADED;
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
    EXPECT_EQ(Find(name).level, TARN_AGENT_HEALTH_DEGRADED);
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

TEST_F(HealthTest, AgentsThatHangDelayNoOther) {
    constexpr size_t kHanging = 8;
    std::vector<std::unique_ptr<kit::Process>> hanging;
    for (size_t i = 0; i != kHanging; ++i) {
        hanging.push_back(std::make_unique<kit::Process>(
            dir_.Path(), std::vector<std::string>{TARN_AGENT, "--name", "sleepy", "--run-dir", dir_.Path()}));
    }
    const auto number = [&](uint32_t level) {
        return std::ranges::count_if(Items(),
                                     [&](const Item &item) { return item.source == "sleepy" && item.level == level; });
    };
    ASSERT_TRUE(kit::Eventually([&] { return number(TARN_AGENT_HEALTH_GOOD) == kHanging; }));
    for (const auto &agent : hanging) {
        agent->Signal(SIGSTOP);
    }
    ASSERT_TRUE(kit::Eventually([&] { return number(TARN_AGENT_HEALTH_BAD) == kHanging; }));

    std::atomic<int> all = -1;
    FakeAgent agent(dir_.Path());
    agent.OnOneway<Tarn_sys_diag_PadsGlobalSwitch>("TarnPadsSetProcPadsGlobalSwitch",
                                                   [&](const auto &request) { all = request.ucGlobalSwitch; });
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(FakeAgent::Register(client_, "lively"), 0);
    EXPECT_TRUE(kit::Eventually([&] { return all == 1; }));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s) << "one after the other, they take 8 s";
    for (const auto &process : hanging) {
        process->Signal(SIGCONT);
    }
    EXPECT_TRUE(kit::Eventually([&] { return number(TARN_AGENT_HEALTH_GOOD) == kHanging; }));
}

TEST_F(HealthTest, TellsSubscribersOfAResource) {
    std::atomic<int> level = -1, usage = -1, others = 0;
    FakeAgent agent(dir_.Path());
    agent.On<Tarn_sys_diag_UpdateResourceInfoInput, Tarn_sys_diag_Result>(
        "TarnUpdateResourceInfo", [&](const auto &request, auto &) {
            others += request.ucResource != TARN_AGENT_RESOURCE_MEMORY;
            level = request.ucLevel;
            usage = request.usUsage;
        });
    Switch(TARND_HEALTH_MEMORY, 1, 999);
    ASSERT_TRUE(Logged("health function 130: on, limit 999"));
    const Tarn_sys_diag_AppSubscribeInput subscription{pid_, TARN_AGENT_EVENT_MEMORY};
    const auto subscribed =
        kit::Call<Unit, Tarn_sys_diag_Result>(client_, "TarnSysdiagTarndAgent", 0, "TarnAppSubscribe", subscription);
    EXPECT_EQ(subscribed->uiResult, 0);
    EXPECT_TRUE(kit::Eventually([&] { return level == 0; })) << "how it is at the start";
    EXPECT_NEAR(usage / 10.0, MemoryUse(), 5);
    Switch(TARND_HEALTH_MEMORY, 1, 1);
    EXPECT_TRUE(kit::Eventually([&] { return level == 1; }));
    Switch(TARND_HEALTH_MEMORY, 1, 999);
    EXPECT_TRUE(kit::Eventually([&] { return level == 0; }));
    EXPECT_EQ(others, 0);
}

TEST_F(HealthTest, RecordsThatACpuIsBusy) {
    const auto events = [&](uint32_t pid, uint32_t most = 0, uint32_t seconds = 0) {
        return Call<Tarn_sys_diag_PadsCpuEventResult>("TarnPadsGetCpuEventByTarnd",
                                                      Tarn_sys_diag_PadsCpuEventInput{pid, seconds, most});
    };
    Switch(TARND_HEALTH_ONE_CPU, 1, 300);
    Switch(TARND_HEALTH_CPU_TIME, 1, 500);
    const kit::Subject subject(dir_);
    const auto found = [&] {
        const auto answer = events(subject.Pid());
        EXPECT_EQ(answer.Status(), 0) << answer.Text();
        if (answer->uiEventNum == 0) {
            return false;
        }
        const Tarn_sys_diag_PadsCpuEvent &event = answer->pstEvent[0];
        EXPECT_EQ(std::string(event.szThreadName), "burner");
        EXPECT_EQ(event.uiTid, subject.tids.at("burner"));
        EXPECT_GE(event.uiDuration, 500);
        EXPECT_GE(event.uiCpuUse, 300);
        EXPECT_LE(event.uiCpuUse, 1000);
        EXPECT_LT(event.uiCpuId, static_cast<uint32_t>(sysconf(_SC_NPROCESSORS_CONF)));
        EXPECT_GT(event.uiThreadUse, 0);
        EXPECT_GE(event.stTime.usYear, 2020);
        return true;
    };
    EXPECT_TRUE(kit::Eventually(found)) << daemon_->Err();
    EXPECT_LE(events(0, 1)->uiEventNum, 1);
    EXPECT_EQ(events(kit::EndedPid())->uiEventNum, 0);

    SwitchAll(0);
    ASSERT_TRUE(Logged("health: off"));
    const auto duration = [&] {
        uint32_t sum = 0;
        const auto answer = events(0);
        for (uint32_t i = 0; i < answer->uiEventNum; ++i) {
            sum += answer->pstEvent[i].uiDuration;
        }
        return sum;
    };
    // The sample that was being taken may still count.
    EXPECT_TRUE(kit::Eventually([&] {
        const uint32_t before = duration();
        std::this_thread::sleep_for(1s);
        return duration() == before;
    })) << "nothing is looked at";
    EXPECT_TRUE(kit::Eventually([&] { return events(subject.Pid(), 0, 1)->uiEventNum == 0; })) << "in the last second";
    EXPECT_GE(events(subject.Pid(), 0, 3600)->uiEventNum, 1);
    EXPECT_GE(events(subject.Pid(), 0, UINT32_MAX)->uiEventNum, 1);
}

} // namespace
