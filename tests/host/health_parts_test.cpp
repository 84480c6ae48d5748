// Health: what is switched on, from which limit on it complains, and who is told of a resource that runs short.
#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/daemon/health/health_examiner.h"
#include "host/daemon/health/resource_levels.h"
#include "host/meaning/choices.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tests/host/refusal.h"
#include "tests/host/simulated_daemon.h"

namespace {

namespace event = host::meaning::event;
namespace health_level = host::meaning::health_level;
namespace resource = host::meaning::resource;
namespace system_health_item = host::meaning::system_health_item;
namespace system_health_level = host::meaning::system_health_level;

using namespace std::chrono_literals;

constexpr uint32_t kPid = kit::kFakePid, kOther = kPid + 1;

struct Item {
    uint32_t level;
    std::string name;
    std::string source;
    std::string time;
    std::string text;
};

// Half of the first CPU is busy, 400 permille of the memory are in use, and little of everything else.
class HealthPartsTest : public testing::Test, protected kit::StateDirectory, protected kit::SimulatedDaemon {
protected:
    HealthPartsTest() : SimulatedDaemon(Kept()) {
        daemon->clock.SetZone({"UTC", 0}, tarnd::Source::kClient);
        proc.Write("loadavg", "0.00 9.00 9.00 1/100 7\n");
        SetDescriptors("1000 0 10000");
        for (const char *const resource : {"cpu", "memory", "io"}) {
            SetPressure(resource, "0.00");
        }
        machine.busyPermille = {1000, 0};
        Pass(1s, 11);
    }

    void SetDescriptors(const std::string &text) const { proc.Write("sys/fs/file-nr", text + "\n"); }
    void SetPressure(const std::string &resource, const std::string &percent) const {
        proc.Write("pressure/" + resource, "some avg10=" + percent + " avg60=99.00\nfull avg10=99.00\n");
    }
    void SetMemory(uint32_t permille) { machine.memory.available = (1000 - permille) * 1000; }

    static uint32_t Switch(uint8_t function, uint8_t on, uint32_t limit = 0) {
        const Tarn_sys_diag_PadsAppFunSwitch request{function, on, limit};
        return TarnPadsSetPadsAppFunSwitchByTarnd(&request);
    }
    static uint32_t SwitchAll(uint8_t on) {
        const Tarn_sys_diag_PadsGlobalSwitch request{on};
        return TarnPadsSetPadsGlobalSwitchByTarnd(&request);
    }
    static auto Get(uint8_t function = 0, uint32_t pid = 0) {
        return kit::CallMethod<Tarn_sys_diag_PadsSystemHealthResult>(
            TarnPadsGetSystemHealthInfoByTarnd, Tarn_sys_diag_PadsSystemHealthInput{function, pid});
    }
    static std::vector<Item> Items(uint8_t function = 0) {
        const auto answer = Get(function);
        std::vector<Item> items;
        for (uint32_t i = 0; i < answer->uiHealthInfoNum; ++i) {
            const Tarn_sys_diag_SysHealthInfo &info = answer->pstHealthInfo[i];
            items.push_back({info.ucValue1, info.acValue1, info.acValue2, info.acValue3, info.acValue4});
        }
        return items;
    }
    static Item Find(const std::string &name) {
        for (const Item &item : Items()) {
            if (item.name == name) {
                return item;
            }
        }
        return {99, "", "", "", "no item " + name};
    }
};

TEST_F(HealthPartsTest, TellsHowTheSystemIs) {
    const Item cpu = Find("cpu");
    EXPECT_EQ(cpu.text, "50.0 % of all CPUs' time in the last 10 s, limit 90.0 %");
    EXPECT_EQ(cpu.level, health_level::kGood);
    EXPECT_EQ(cpu.source, "system");
    EXPECT_EQ(cpu.time, "20231114221331");
    EXPECT_EQ(Find("memory").text, "40.0 % of the memory in use, limit 90.0 %");
    EXPECT_EQ(Find("io-pressure").text, "0.0 % of the last 10 s some task waited, limit 30.0 %");
    EXPECT_EQ(Find("descriptors").text, "10.0 % of the files that the system may have open, limit 80.0 %");
    EXPECT_EQ(Find("load").text, "0.00 in the last minute, 0.00 for each CPU, limit 2.00");
    EXPECT_EQ(Find("disk " + state.Path().string()).source, "system");
    EXPECT_EQ(Find("disk ").level, 99) << "a directory that there is none of";
    machine.busyPermille = {0, 0};
    Pass(1s, 5);
    EXPECT_EQ(Find("cpu").text.substr(0, 6), "25.0 %") << "of 10 s";
}

TEST_F(HealthPartsTest, IsDegradedFromTheLimitAndBadFromTheMiddleToTheWhole) {
    const auto levelAt = [&](uint32_t permille) {
        SetMemory(permille);
        Pass(1s);
        return Find("memory").level;
    };
    EXPECT_EQ(levelAt(899), health_level::kGood);
    EXPECT_EQ(levelAt(900), health_level::kDegraded);
    EXPECT_EQ(levelAt(949), health_level::kDegraded);
    EXPECT_EQ(levelAt(950), health_level::kBad);
    EXPECT_EQ(Get()->uiValue1, health_level::kBad);
    EXPECT_EQ(Get(system_health_item::kCpu)->uiValue1, health_level::kGood);
    EXPECT_EQ(Switch(system_health_item::kMemory, 1, 951), 0);
    EXPECT_EQ(Find("memory").level, health_level::kGood);
}

TEST_F(HealthPartsTest, TellsTheLoadOfEachCpu) {
    const auto cpus = static_cast<double>(sysconf(_SC_NPROCESSORS_ONLN));
    const auto levelAt = [&](double ofEach) {
        proc.Write("loadavg", fmt::format("{:.3f} 0.00 0.00 1/100 7\n", ofEach * cpus));
        return Find("load").level;
    };
    EXPECT_EQ(levelAt(1.99), health_level::kGood);
    EXPECT_EQ(levelAt(2), health_level::kDegraded);
    EXPECT_EQ(levelAt(3.99), health_level::kDegraded);
    EXPECT_EQ(levelAt(4), health_level::kBad);
    EXPECT_NE(Find("load").text.find(", 4.00 for each CPU"), std::string::npos) << Find("load").text;
}

TEST_F(HealthPartsTest, SaysWhyItCannotTell) {
    proc.Remove("loadavg");
    SetDescriptors("none");
    proc.Write("pressure/io", "full avg10=1.00\n");
    for (const char *const name : {"load", "descriptors", "io-pressure"}) {
        EXPECT_EQ(Find(name).level, system_health_level::kUnknown) << name;
    }
    EXPECT_NE(Find("load").text.find("loadavg: No such file"), std::string::npos) << Find("load").text;
    EXPECT_EQ(Get()->uiValue1, health_level::kGood) << "the worst of what is known";
    SetPressure("cpu", "29.99");
    SetPressure("memory", "10.00");
    EXPECT_EQ(Find("cpu-pressure").level, health_level::kDegraded) << "at the limit, rounded";
    EXPECT_EQ(Find("memory-pressure").level, health_level::kDegraded);
    SetPressure("memory", "55.00");
    EXPECT_EQ(Find("memory-pressure").level, health_level::kBad);
}

TEST_F(HealthPartsTest, CountsADiskAsItsUsersSeeIt) {
    struct statvfs status {};
    status.f_blocks = 1000;
    status.f_bfree = 300;
    status.f_bavail = 200; // 100 are kept for root
    status.f_files = 100;
    status.f_ffree = status.f_favail = 10;
    EXPECT_EQ(tarnd::DiskUseOf(status).space, 778);
    EXPECT_EQ(tarnd::DiskUseOf(status).files, 900);
    EXPECT_EQ(tarnd::DiskUseOf({}).space, 0) << "a file system without blocks";
    EXPECT_EQ(tarnd::DiskUseOf({}).files, 0);
}

TEST_F(HealthPartsTest, TellsOfAgents) {
    AddAgent(kPid, "sleepy");
    AddAgent(kOther, "well");
    IdlCallResult result{0, ETIMEDOUT};
    peers.On(TARND_AGENT_METHOD(TarnPadsGetProcSystemHealthInfo), [&](uint32_t pid, const auto &, auto &) {
        clocks.Advance(3ms);
        return pid == kPid ? result : IdlCallResult{0, 0};
    });
    RunDue();
    const std::vector<Item> agents = Items(system_health_item::kAgents);
    ASSERT_EQ(agents.size(), 2);
    EXPECT_EQ(agents[0].name, fmt::format("agent of process {}", kPid));
    EXPECT_EQ(agents[0].source, "sleepy");
    EXPECT_EQ(agents[0].level, system_health_level::kUnknown) << "there may be none";
    EXPECT_EQ(agents[0].text.substr(0, 19), "has never answered:");
    EXPECT_EQ(agents[1].text, "answered after 3 ms");
    EXPECT_EQ(Get(0, kPid).Status(), ETIMEDOUT) << "asked itself";
    EXPECT_EQ(Get(0, kOther).Status(), 0);
    EXPECT_EQ(Get(0, kOther + 1).Status(), ESRCH);
}

TEST_F(HealthPartsTest, AnAgentIsBadThatAnswersNoLonger) {
    AddAgent(kPid, "sleepy");
    IdlCallResult result{0, 0};
    peers.On(TARND_AGENT_METHOD(TarnPadsGetProcSystemHealthInfo),
             [&](uint32_t, const auto &, auto &) { return result; });
    Pass(2s);
    EXPECT_EQ(Items(system_health_item::kAgents).at(0).level, health_level::kGood);
    result = {0, ETIMEDOUT};
    Pass(2s);
    const Item silent = Items(system_health_item::kAgents).at(0);
    EXPECT_EQ(silent.level, health_level::kBad);
    EXPECT_EQ(silent.text.substr(0, 16), "does not answer:");
    EXPECT_EQ(Get()->uiValue1, health_level::kBad);
}

TEST_F(HealthPartsTest, OneFalseRegistrationIsNoBadSystem) {
    AddAgent(kPid, "none");
    peers.On(TARND_AGENT_METHOD(TarnPadsGetProcSystemHealthInfo), [](uint32_t, const auto &, auto &) {
        return IdlCallResult{0, ECONNREFUSED};
    });
    Pass(2s, 30);
    EXPECT_EQ(Items(system_health_item::kAgents).at(0).level, system_health_level::kUnknown);
    EXPECT_EQ(Get()->uiValue1, health_level::kGood);
}

TEST_F(HealthPartsTest, AnAgentsItemsHaveTheTimeOfTheDaemon) {
    daemon->clock.SetZone({"+0330", 210}, tarnd::Source::kClient);
    AddAgent(kPid, "elsewhere");
    Tarn_sys_diag_SysHealthInfo item{};
    host::CopyText(item.acValue3, "19991231235959");
    peers.On(TARND_AGENT_METHOD(TarnPadsGetProcSystemHealthInfo), [&](uint32_t, const auto &, auto &reply) {
        reply.uiHealthInfoNum = 1;
        reply.pstHealthInfo = &item;
        return IdlCallResult{0, 0};
    });
    const auto answer = Get(0, kPid);
    ASSERT_EQ(answer->uiHealthInfoNum, 1);
    EXPECT_EQ(std::string(answer->pstHealthInfo[0].acValue3), "20231115014331");
    EXPECT_EQ(answer.Reason(), "by the daemon's clock, at 2023-11-15 01:43:31 +0330");
    EXPECT_EQ(Find("cpu").time, "20231115014331");
}

TEST_F(HealthPartsTest, CountsNoLevelBeforeItsTime) {
    Restart();
    machine.busyPermille = {1000, 1000};
    Pass(100ms);
    EXPECT_EQ(Find("cpu").level, system_health_level::kUnknown);
    EXPECT_EQ(Find("cpu").text, "0.1 s of 10 s have been sampled so far");
    Pass(1s, 9);
    EXPECT_EQ(Find("cpu").level, system_health_level::kUnknown);
    Pass(1s);
    EXPECT_EQ(Find("cpu").level, health_level::kBad);
}

// ---- What is switched ----

TEST_F(HealthPartsTest, LooksAtWhatIsSwitchedOn) {
    const auto isKnown = [](const Item &item) { return item.level != system_health_level::kUnknown; };
    const auto anyIsKnown = [&] { return std::ranges::any_of(Items(), isKnown); };
    EXPECT_EQ(Items(system_health_item::kMemory).size(), 1);
    EXPECT_EQ(Switch(system_health_item::kLoad, 0), 0);
    EXPECT_EQ(Find("load").level, system_health_level::kUnknown);
    EXPECT_EQ(Find("load").text, "switched off");
    EXPECT_EQ(Get(system_health_item::kLoad)->uiValue1, system_health_level::kUnknown) << "and not good";
    EXPECT_TRUE(isKnown(Find("memory")));
    EXPECT_EQ(Get()->uiValue1, health_level::kGood) << "of what is known";
    EXPECT_EQ(Get()->uiValue2, 1);
    EXPECT_EQ(SwitchAll(0), 0);
    EXPECT_FALSE(anyIsKnown());
    EXPECT_EQ(Get()->uiValue1, system_health_level::kUnknown);
    EXPECT_EQ(Get()->uiValue2, 0);
    EXPECT_EQ(SwitchAll(1), 0);
    EXPECT_FALSE(isKnown(Find("load"))) << "it is off by itself";
    EXPECT_EQ(Switch(5, 1), 0);
    EXPECT_EQ(Switch(0, 0), 0);
    EXPECT_FALSE(anyIsKnown());
    EXPECT_FALSE(daemon->healthSettings.IsOn(5)) << "an agent's";
    EXPECT_EQ(Switch(0, 1), 0);
    EXPECT_TRUE(isKnown(Find("load")));
}

TEST_F(HealthPartsTest, RefusesByWhatMembersMean) {
    namespace methods = host::methods;
    const std::pair<std::string, const char *> refusals[] = {
        {kit::Refusal(methods::TarnPadsSetPadsGlobalSwitchByTarnd, {2}), "on (ucGlobalSwitch) is 2, expected 0 to 1"},
        {kit::Refusal(methods::TarnPadsSetPadsAppFunSwitchByTarnd, {135, 2, 0}), "on (ucSwitch) is 2, expected 0 to 1"},
        {kit::Refusal(methods::TarnPadsSetPadsAppFunSwitchByTarnd, {127, 1, UINT32_MAX}), ""},
    };
    for (const auto &[refusal, expected] : refusals) {
        EXPECT_EQ(refusal, expected);
    }
    EXPECT_THAT(kit::Refusal(methods::TarnPadsSetPadsAppFunSwitchByTarnd, {139, 1, 0}),
                testing::StartsWith("item (ucFunction) is 139, expected 0 (all, of the daemon and the agents), cpu "));
    EXPECT_EQ(SwitchAll(2), EINVAL);
    EXPECT_EQ(Switch(system_health_item::kLast + 1, 1), EINVAL);
    EXPECT_EQ(Switch(system_health_item::kLast, 1), 0);
    EXPECT_EQ(Get(system_health_item::kFirst - 1).Status(), EINVAL);
    EXPECT_EQ(Get(system_health_item::kLast + 1).Status(), EINVAL);
    EXPECT_EQ(Get(system_health_item::kFirst - 1, kPid).Status(), ESRCH) << "an agent's are not chosen";
}

TEST_F(HealthPartsTest, KnowsTheBoundsOfLimits) {
    EXPECT_EQ(Switch(0, 1, 1), EINVAL) << "items have limits of their own";
    EXPECT_EQ(Switch(system_health_item::kDisk, 1, 1001), EINVAL);
    EXPECT_EQ(Switch(system_health_item::kDisk, 1, 1000), 0);
    EXPECT_EQ(Switch(system_health_item::kLoad, 1, 1001), 0) << "no share";
    EXPECT_EQ(Switch(system_health_item::kAgents, 1, 1001), EINVAL);
    EXPECT_EQ(Switch(system_health_item::kAgents, 1, 1000), 0);
    EXPECT_EQ(kit::ReasonOf([&] {
                  daemon->healthSettings.SwitchFunction({133, 1, 1001});
              }),
              "limit (uiValue) is 1001, expected a share of at most 1000");
}

TEST_F(HealthPartsTest, KeepsWhatWasSwitched) {
    EXPECT_EQ(Switch(system_health_item::kLoad, 0, 77), 0);
    EXPECT_EQ(Switch(5, 1, 99), 0);
    EXPECT_EQ(Switch(system_health_item::kMemory, 1, 500), 0);
    EXPECT_EQ(Switch(system_health_item::kMemory, 1), 0);
    EXPECT_EQ(SwitchAll(0), 0);
    Restart();
    const tarnd::HealthSettings &settings = daemon->healthSettings;
    EXPECT_FALSE(settings.AllOn());
    EXPECT_EQ(SwitchAll(1), 0);
    EXPECT_FALSE(settings.IsOn(system_health_item::kLoad));
    EXPECT_TRUE(settings.IsOn(system_health_item::kMemory));
    EXPECT_EQ(settings.LimitOf(system_health_item::kLoad), 77);
    EXPECT_EQ(settings.LimitOf(system_health_item::kMemory), 500) << "0 leaves the limit";
    EXPECT_EQ(settings.LimitOf(system_health_item::kCpuEventTime), 3000);
    ASSERT_EQ(settings.OfAgents().size(), 1);
    EXPECT_EQ(settings.OfAgents()[0].uiValue, 99);
}

TEST_F(HealthPartsTest, BringsTheSwitchesToTheAgents) {
    std::vector<int> all;
    std::vector<std::pair<int, uint32_t>> functions;
    peers.OnOneway(TarnSysdiagAgent_TarnPadsSetProcPadsGlobalSwitch_oneway, [&](uint32_t, const auto &request) {
        all.push_back(request.ucGlobalSwitch);
        return 0U;
    });
    peers.OnOneway(TarnSysdiagAgent_TarnPadsSetProcPadsAppFunSwitch_oneway, [&](uint32_t, const auto &request) {
        functions.emplace_back(request.ucFunction, request.uiValue);
        return 0U;
    });
    EXPECT_EQ(SwitchAll(0), 0);
    AddAgent(kPid, "later");
    RunDue();
    EXPECT_EQ(all, std::vector{0});
    EXPECT_EQ(SwitchAll(1), 0);
    EXPECT_EQ(Switch(system_health_item::kMemory, 1, 500), 0);
    EXPECT_EQ(Switch(5, 1, 77), 0);
    RunDue();
    EXPECT_EQ(all, (std::vector{0, 1}));
    EXPECT_EQ(functions, (std::vector<std::pair<int, uint32_t>>{{5, 77}})) << "not the daemon's own";
}

// ---- Who is told ----

class ResourceLevelsTest : public HealthPartsTest {
protected:
    using Told = std::vector<std::tuple<uint32_t, int, int, int>>; // process, resource, level, use

    ResourceLevelsTest() {
        peers.agents = {kPid, kOther};
        peers.On(TARND_AGENT_METHOD(TarnUpdateResourceInfo), [this](uint32_t pid, const auto &info, auto &) {
            told_.emplace_back(pid, info.ucResource, info.ucLevel, info.usUsage);
            return IdlCallResult{0, 0};
        });
        for (const uint32_t pid : {kPid, kOther}) {
            proc.SetThread(pid, kit::FakeProc::MakeTask(pid, "program"));
        }
    }
    static uint32_t Subscribe(uint32_t pid, uint32_t events) {
        return kit::CallMethod<Tarn_sys_diag_Result>(TarnAppSubscribe, Tarn_sys_diag_AppSubscribeInput{pid, events})
            ->uiResult;
    }
    Told Take() {
        RunDue();
        return std::exchange(told_, {});
    }
    Told At(uint32_t memoryPermille) {
        SetMemory(memoryPermille);
        Pass(1s);
        return Take();
    }
    static Told OfMemory(int level, int use) { return {{kPid, resource::kMemory, level, use}}; }

    Told told_;
};

TEST_F(ResourceLevelsTest, AreToldAtTheStartToWhomeverAsked) {
    EXPECT_EQ(Subscribe(kPid, event::kCpu | event::kMemory), 0);
    EXPECT_EQ(Subscribe(kOther, event::kDescriptors), 0);
    EXPECT_EQ(Take(), (Told{{kPid, resource::kCpu, 0, 500},
                            {kPid, resource::kMemory, 0, 400},
                            {kOther, resource::kDescriptors, 0, 100}}));
    Pass(1s, 10);
    EXPECT_EQ(Take(), Told{}) << "nothing has changed";
}

TEST_F(ResourceLevelsTest, AreToldWhenTheyAreKnownToWhoeverAskedBefore) {
    Restart();
    EXPECT_EQ(Subscribe(kPid, event::kMemory), 0);
    EXPECT_EQ(Take(), Told{});
    Pass(1s);
    EXPECT_EQ(Take(), OfMemory(0, 400));
}

TEST_F(ResourceLevelsTest, ChangeAtTheLimitAndBelowItWithHysteresis) {
    EXPECT_EQ(Subscribe(kPid, event::kMemory), 0);
    EXPECT_EQ(Take(), OfMemory(0, 400));
    EXPECT_EQ(At(899), Told{});
    EXPECT_EQ(At(900), OfMemory(1, 900));
    EXPECT_EQ(At(949), Told{});
    EXPECT_EQ(At(950), OfMemory(2, 950));
    EXPECT_EQ(At(930), Told{});
    EXPECT_EQ(At(929), OfMemory(1, 929));
    EXPECT_EQ(At(880), Told{});
    EXPECT_EQ(At(879), OfMemory(0, 879));
    EXPECT_EQ(At(1000), OfMemory(2, 1000));
    EXPECT_EQ(Switch(system_health_item::kMemory, 0), 0);
    EXPECT_EQ(At(1000), OfMemory(0, 1000)) << "not looked at";
}

TEST_F(ResourceLevelsTest, OfCpusAreThoseOfThreeSeconds) {
    EXPECT_EQ(Switch(system_health_item::kCpu, 1, 600), 0);
    EXPECT_EQ(Subscribe(kPid, event::kCpu), 0);
    Take();
    machine.busyPermille = {1000, 1000};
    Pass(1s);
    EXPECT_EQ(Take(), (Told{{kPid, resource::kCpu, 1, 667}}));
    Pass(1s);
    EXPECT_EQ(Take(), (Told{{kPid, resource::kCpu, 2, 833}}));
}

TEST_F(ResourceLevelsTest, OfCpusAreNotToldBeforeThreeSeconds) {
    Restart();
    EXPECT_EQ(Subscribe(kPid, event::kCpu), 0);
    machine.busyPermille = {1000, 1000};
    Pass(100ms);
    Pass(1s, 2);
    EXPECT_EQ(Take(), Told{});
    Pass(1s);
    EXPECT_EQ(Take(), (Told{{kPid, resource::kCpu, 2, 1000}}));
}

TEST_F(ResourceLevelsTest, OfDescriptorsAreThoseInUse) {
    EXPECT_EQ(Subscribe(kPid, event::kDescriptors), 0);
    Take();
    SetDescriptors("8100 101 10000");
    Pass(1s);
    EXPECT_EQ(Take(), Told{}) << "less those that are allocated and not in use";
    SetDescriptors("8100 100 10000");
    Pass(1s);
    EXPECT_EQ(Take(), (Told{{kPid, resource::kDescriptors, 1, 800}}));
}

} // namespace
