// tarnctl over a fleet's server, the real one: devices with relays, which have one daemon between them.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/common.h"

#include "host/fleet/wire.h"
#include "nats_server.h"
#include "tests/host/tasks_kit.h"

namespace {

using namespace kit;
using testing::ContainsRegex;
using testing::HasSubstr;

class InFleet : public Tasks {
protected:
    void SetUp() override {
        if (*kNatsServer == 0) {
            GTEST_SKIP() << "this machine has no nats-server";
        }
        ASSERT_NO_FATAL_FAILURE(Tasks::SetUp());
        server_.emplace();
        setenv("XDG_CONFIG_HOME", (dir_.Path() / "config").c_str(), 1);
        std::filesystem::create_directories(dir_.Path() / "config/tarn/contexts");
        for (const char *const device : {"press-1", "press-2"}) {
            std::ofstream(Config(device))
                << "server = " << server_->Url() << "\ndevice = " << device << "\ngroups = reading settings\n";
        }
        Process streams(dir_.Path(), {TARN_RELAY, "--make-streams", Config("press-1")});
        ASSERT_EQ(streams.Wait(), 0) << streams.Err();
        for (const char *const device : {"press-1", "press-2"}) {
            relays_.push_back(Start({TARN_RELAY, "--run-dir", dir_.Path(), Config(device)}));
        }
        SayHello("mill-1"); // and goes
        ASSERT_TRUE(Await("all devices have said that they are there", [&] {
            return Fleet("devices --json") == 0 && std::ranges::count(out_, '\n') == 3;
        })) << error_;
    }
    void TearDown() override { unsetenv("XDG_CONFIG_HOME"); }

    std::filesystem::path Config(const std::string &device) const { return dir_.Path() / (device + ".conf"); }

    void SayHello(const std::string &device) const {
        fleet::Connection connection({.account = {.url = server_->Url()}});
        connection.Publish(fleet::SubjectOf(device, "hello"), R"({"version": "1.0.0", "health": "serving"})");
        connection.Flush(kPatience);
    }

    int Fleet(const std::string &arguments) {
        return RunAnywhere(fmt::format("--fleet {} {}", server_->Url(), arguments));
    }
    std::string OfFleet(const std::string &arguments) {
        EXPECT_EQ(Fleet(arguments), 0) << arguments << ": " << error_;
        return out_;
    }

    std::optional<NatsServer> server_;
    std::vector<std::unique_ptr<Process>> relays_;
};

TEST_F(InFleet, DevicesTellHowTheyAre) {
    EXPECT_EQ(Fleet("devices"), 0) << error_;
    EXPECT_THAT(out_, testing::MatchesRegex("device +health +version +uptime +seen\n"
                                            "mill-1 +.*"
                                            "press-1 +serving +[0-9.]+ +[^ ]+ m?s +[^ ]+ s ago\n"
                                            "press-2 +serving .*"));
    ASSERT_EQ(Fleet("devices 'press-*' --json"), 0) << error_;
    const std::vector<Json> devices = ObjectsOf(out_);
    ASSERT_EQ(devices.size(), 2U);
    EXPECT_EQ(devices[0].at("device"), "press-1");
    EXPECT_EQ(devices[0].at("services"), Json::array({"TarnSysdiagTarnd"}));
    EXPECT_EQ(Fleet("devices lathe"), 0);
    EXPECT_EQ(out_, "no such device has ever said that it is there\n");
}

TEST_F(InFleet, ADeviceIsAskedAsThisMachineIs) {
    const auto worker = StartWorker();
    EXPECT_TRUE(Eventually([&] { return OfFleet("--device press-1 ps " + name_).find(name_) != std::string::npos; }));
    EXPECT_THAT(OfFleet("health --device press-2"), HasSubstr("is the worst level"));
    EXPECT_THAT(OfFleet("--device press-1 services"), HasSubstr("TarnSysdiagTarnd"));
    OfFleet("--device press-1 settings set cpu.begins-at=91%");
    EXPECT_THAT(Out("settings --columns name,value"), ContainsRegex("cpu.begins-at +91"));
    EXPECT_THAT(OfFleet("--device press-1 events --kind setting --json"), HasSubstr("begins-at"));
    OfFleet("--device press-1 collect -o of-press.tar.gz");
    EXPECT_FALSE(Archived("of-press.tar.gz", "settings.jsonl").empty());
    EXPECT_EQ(Fleet("--device press-1 call GetKpiCpuInfo"), 0) << error_;
    StartAgent();
    EXPECT_EQ(Fleet("--device press-1 exec tasked help"), 5);
    EXPECT_THAT(error_, HasSubstr("the relay of press-1 passes on no method of the group commands"));
}

TEST_F(InFleet, ADeviceThatIsNotThereIsNoConnection) {
    EXPECT_EQ(Fleet("--device mill-1 ps"), 3);
    EXPECT_THAT(error_, HasSubstr("mill-1: no such device is connected"));
    EXPECT_EQ(Fleet("--device 'mill 1' ps"), 2);
    EXPECT_THAT(error_, HasSubstr("--device: \"mill 1\" is no name of a device"));
    EXPECT_EQ(Fleet("--device press-1 --run-dir . ps"), 2) << error_;
}

TEST_F(InFleet, AReaderThatHasGoneIsNoFailure) {
    Fleet("--device press-1 ps | :");
    EXPECT_EQ(error_, "");
    Fleet("fleet call PidIsOnline process=1 --devices 'press-*' | :");
    EXPECT_THAT(error_, testing::Not(HasSubstr("cannot write")));
}

// A signal leaves it no time to tidy up.
TEST_F(InFleet, ADeviceLeavesNoFilesBehind) {
    const std::filesystem::path place = dir_.Path() / "tmp";
    std::filesystem::create_directory(place);
    setenv("TMPDIR", place.c_str(), 1);
    OfFleet("--device press-1 ps");
    EXPECT_TRUE(std::filesystem::is_empty(place));
    daemon_.reset();
    for (const int signal : {SIGINT, SIGKILL}) {
        Process follows(dir_.Path(), {TARNCTL, "--fleet", server_->Url(), "--device", "press-1", "events", "--follow"});
        ASSERT_TRUE(Eventually([&] { return follows.Err().find("waiting for the daemon") != std::string::npos; }));
        follows.Signal(signal);
        follows.Wait();
        EXPECT_TRUE(Eventually([&] { return std::filesystem::is_empty(place); })) << signal;
    }
    unsetenv("TMPDIR");
}

TEST_F(InFleet, AMethodOfManyIsAnObjectForEach) {
    std::vector<Json> lines = ObjectsOf(OfFleet("fleet call PidIsOnline process=1 --devices 'press-*'"));
    EXPECT_EQ(error_, "2 answered, 0 silent, 0 refused\n");
    ASSERT_EQ(lines.size(), 2U);
    std::ranges::sort(lines, {}, [](const Json &line) { return line.at("device").get<std::string>(); });
    EXPECT_EQ(lines[0].at("device"), "press-1");
    EXPECT_EQ(lines[0].at("reply"), Json::parse(Out("call PidIsOnline process=1 --json=named")));
    EXPECT_EQ(Fleet("fleet call PidIsOnline process=1 --at-a-time 1"), 3);
    EXPECT_EQ(error_, "tarnctl: 2 answered, 1 silent, 0 refused\n");
    const std::vector<Json> all = ObjectsOf(out_);
    ASSERT_EQ(all.size(), 3U);
    EXPECT_EQ(all[0].at("device"), "mill-1");
    EXPECT_THAT(all[0].at("failure").get<std::string>(), HasSubstr("no such device is connected"));
    EXPECT_EQ(Fleet("fleet call ClearEnvAct what=settings --devices press-1"), 0) << error_;
    EXPECT_EQ(Fleet("fleet call PidIsOnline"), 2) << "what is missing is sent to nobody";
    EXPECT_EQ(Fleet("fleet call PidIsOnline process=1 --devices lathe"), 2);
    EXPECT_THAT(error_, HasSubstr("lathe: no such device"));
    EXPECT_EQ(Fleet("fleet call"), 2);
    EXPECT_EQ(error_, "tarnctl: found call, expected call METHOD REQUEST, set NAME=VALUE..., top, or events\n");
}

TEST_F(InFleet, ARefusalIsWorseThanSilence) {
    EXPECT_EQ(Fleet("fleet call ProcTableBuild options=as-tree"), 5) << error_;
    EXPECT_EQ(error_, "tarnctl: 0 answered, 1 silent, 2 refused\n");
    EXPECT_THAT(out_, HasSubstr("the relay of press-1 passes on no method of the group commands"));
}

TEST_F(InFleet, SettingsOfManyAreSetOrOnlyTold) {
    const auto begins = [&] { return Objects("settings --json")[0].at("value"); };
    const Json before = begins();
    const Json change{{"name", "cpu.begins-at"}, {"before", before}, {"after", 910}};
    std::vector<Json> lines = ObjectsOf(OfFleet("fleet set cpu.begins-at=91% --devices 'press-*' --dry-run"));
    EXPECT_EQ(error_, "2 would be set, 0 silent, 0 refused\n");
    EXPECT_EQ(lines, (std::vector<Json>{{{"device", "press-1"}, {"changes", {change}}},
                                        {{"device", "press-2"}, {"changes", {change}}}}));
    EXPECT_EQ(begins(), before);
    lines = ObjectsOf(OfFleet("fleet set cpu.begins-at=91% cpu.must-last=7s memory.begins-at=92% --devices press-1"));
    EXPECT_EQ(error_, "1 set, 0 silent, 0 refused\n");
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].at("changes").size(), 3U);
    EXPECT_EQ(lines[0].at("changes")[0], change);
    EXPECT_EQ(begins(), 910);
    EXPECT_THAT(OfFleet("--device press-2 settings"), ContainsRegex("memory.begins-at +92"));
}

TEST_F(InFleet, SettingEndsWhereADeviceFails) {
    EXPECT_EQ(Fleet("fleet set cpu.begins-at=93% --at-a-time 1"), 3) << "mill-1 is the first and is not there";
    EXPECT_EQ(error_, "tarnctl: 0 set, 1 silent, 0 refused, 2 not asked\n");
    EXPECT_EQ(ObjectsOf(out_).size(), 1U);
    EXPECT_EQ(Fleet("fleet set cpu.begins-at=93% --at-a-time 2"), 3);
    EXPECT_EQ(error_, "tarnctl: 1 set, 1 silent, 0 refused, 1 not asked\n");
    EXPECT_EQ(Fleet("fleet set cpu.begins-at=190%"), 3);
    EXPECT_EQ(error_, "tarnctl: 0 set, 1 silent, 2 refused\n");
    EXPECT_THAT(out_, HasSubstr("begins-at (uiValue1) is 1900"));
    EXPECT_EQ(Fleet("fleet set cpu.begin-at=90%"), 2) << "no device is asked";
    EXPECT_THAT(error_, HasSubstr("cpu.begin-at: no such setting; did you mean cpu.begins-at?"));
    EXPECT_EQ(Fleet("fleet set"), 2);
    EXPECT_EQ(Fleet("fleet set cpu.begins-at=90% --devices lathe"), 2);
    EXPECT_THAT(error_, HasSubstr("lathe: no such device"));
    SayHello("lathe-1");
    fleet::Connection odd({.account = {.url = server_->Url()}});
    odd.Subscribe(fleet::SubjectOf("lathe-1", "call.>"),
                  [&](const fleet::Message &message) { odd.Publish(message.Reply(), R"({"settings": 7})"); });
    odd.Flush(kPatience);
    ASSERT_TRUE(Await("it is listed", [&] { return OfFleet("devices").find("lathe-1") != std::string::npos; }));
    EXPECT_EQ(Fleet("fleet set cpu.begins-at=90% --devices lathe-1"), 6);
    EXPECT_THAT(out_, HasSubstr("its settings are not as expected"));
}

TEST_F(InFleet, TheBusiestOfAllAreOnTop) {
    EXPECT_EQ(Fleet("fleet top --batch --devices 'press-*'"), 0) << error_;
    EXPECT_THAT(out_, testing::StartsWith("2 answered, 0 did not\n\nDEVICE "));
    EXPECT_THAT(out_, ContainsRegex("press-1 +[0-9.]+ % "));
    EXPECT_THAT(out_, HasSubstr("\nDEVICE   PROCESS "));
    const std::vector<Json> views = ObjectsOf(OfFleet("fleet top --json -n 2 -d 10ms"));
    ASSERT_EQ(views.size(), 2U);
    const Json &devices = views[1].at("devices");
    ASSERT_EQ(devices.size(), 3U);
    EXPECT_FALSE(devices[0].at("processes").empty());
    EXPECT_EQ(devices[2].at("device"), "mill-1");
    EXPECT_THAT(devices[2].at("failure").get<std::string>(), HasSubstr("no such device is connected"));
    EXPECT_EQ(Fleet("fleet top worker"), 2);
    EXPECT_EQ(error_, "tarnctl: found top worker, expected call METHOD REQUEST, set NAME=VALUE..., top, or events\n");
    EXPECT_EQ(Fleet("fleet top -d soon"), 2);
}

// One that answers nobody.
TEST_F(InFleet, AnInterruptIsToldToDevices) {
    fleet::Connection mute({.account = {.url = server_->Url()}});
    std::atomic<int> asked = 0, cancelled = 0;
    mute.Subscribe(fleet::SubjectOf("mill-1", "call.>"), [&](const fleet::Message &) { ++asked; });
    mute.Subscribe(fleet::SubjectOf("mill-1", "cancel"), [&](const fleet::Message &) { ++cancelled; });
    mute.Flush(kPatience);
    EXPECT_EQ(Fleet("fleet call PidIsOnline process=1 --devices mill-1 --deadline 50ms"), 4) << error_;
    EXPECT_THAT(error_, HasSubstr("0 answered, 1 silent"));
    Process call(dir_.Path(), {TARNCTL, "--fleet", server_->Url(), "fleet", "call", "PidIsOnline", "process=1",
                               "--deadline", "60s", "--quiet"});
    ASSERT_TRUE(Await("two answers", [&] { return asked == 2 && std::ranges::count(call.Out(), '\n') == 2; }));
    const int before = cancelled;
    call.Signal(SIGINT);
    EXPECT_EQ(call.Wait(), -1) << "ended by the signal";
    EXPECT_EQ(call.Err(), "tarnctl: interrupted after 2 of 3 devices, and cancelled\n");
    EXPECT_TRUE(Eventually([&] { return cancelled == before + 1; }));
}

TEST_F(InFleet, EventsAreThoseOfAllDevices) {
    Out("settings set cpu.begins-at=92%");
    ASSERT_TRUE(Await("both relays have carried it", [&] {
        return std::ranges::count(OfFleet("fleet events --since 1h --kind setting"), '\n') == 2;
    }));
    std::vector<Json> events = ObjectsOf(out_);
    EXPECT_THAT(events[0].at("text").get<std::string>(), HasSubstr("begins-at"));
    EXPECT_NE(events[0].at("device"), events[1].at("device"));
    EXPECT_EQ(ObjectsOf(OfFleet("fleet events --kind setting --devices press-2")).size(), 1U);
    EXPECT_EQ(OfFleet("fleet events --kind crash"), "");
    EXPECT_EQ(OfFleet("fleet events --since '2090-01-01 00:00:00'"), "");
    EXPECT_EQ(Fleet("fleet events --since soon"), 2);
    EXPECT_THAT(error_, HasSubstr("--since: found soon, expected how long ago"));
}

TEST_F(InFleet, AContextStandsForTheOption) {
    ExpectFailure(2, "devices", "no fleet: expected --fleet URL, or a context in use");
    ExpectFailure(2, "context use plant-7", "plant-7: no such context, expected a file ");
    const std::filesystem::path context = dir_.Path() / "config/tarn/contexts/plant-7";
    std::ofstream(context) << "server = " << server_->Url() << "\n";
    EXPECT_THAT(Out("context"), testing::MatchesRegex("context +in-use\nplant-7 +no\n"));
    Out("context use plant-7");
    EXPECT_EQ(Objects("context --json"), (std::vector<Json>{{{"context", "plant-7"}, {"in_use", true}}}));
    EXPECT_EQ(Objects("devices --json").size(), 3U);
    ExpectFailure(2, "context use plant-8", "did you mean plant-7?");
    std::ofstream(context) << "server = nats://10.0.0.1:4222\n";
    ExpectFailure(2, "devices", "plant-7:1: server nats://10.0.0.1:4222: not encrypted, expected tls://HOST:PORT");
    ExpectFailure(2, "--fleet nats://fleet.example:4222 devices", "not encrypted");
    server_->Kill();
    ExpectFailure(3, "--fleet " + server_->Url() + " devices", server_->Url());
}

TEST_F(InFleet, DevicesAndContextsAreCompleted) {
    std::ofstream(dir_.Path() / "config/tarn/contexts/plant-7") << "server = " << server_->Url() << "\n";
    EXPECT_EQ(Out("complete -- context use pl"), "plant-7\n");
    EXPECT_EQ(Out("complete -- fleet ca"), "call\n");
    EXPECT_EQ(Out("complete -- fleet set cpu.beg"), "cpu.begins-at=\n");
    EXPECT_EQ(Out("complete -- fleet call PidIs"), "PidIsOnline\n");
    EXPECT_EQ(Out("complete -- fleet call PidIsOnline pro"), "process=\n");
    EXPECT_EQ(Out(fmt::format("complete -- --fleet {} devices pr", server_->Url())), "press-1\npress-2\n");
    EXPECT_EQ(Out(fmt::format("complete -- --fleet {} --device mi", server_->Url())), "mill-1\n");
    const auto worker = StartWorker();
    const std::string begun = name_.substr(0, name_.size() - 2);
    EXPECT_TRUE(Eventually([&] {
        return Out(fmt::format("complete -- --fleet {} --device press-1 stack {}", server_->Url(), begun)) ==
               name_ + "\n";
    })) << out_;
    EXPECT_EQ(Out("complete -- --fleet nats://127.0.0.1:1 devices pr"), "");
}

} // namespace
