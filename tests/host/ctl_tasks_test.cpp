// The tasks of tarnctl, with a daemon and an application that has an agent.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/common.h"

#include "host/daemon/history/event.h"
#include "host/describe/moment.h"
#include "tests/host/on_terminal.h"
#include "tests/host/tasks_kit.h"

namespace {

using namespace kit;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

TEST_F(Tasks, PsListsSortsAndChooses) {
    const auto worker = StartWorker();
    const std::string pid = std::to_string(worker->Pid());
    ASSERT_TRUE(Eventually([&] { return Out("ps " + name_ + " --no-headers --columns process") == pid + "\n"; }))
        << out_;
    EXPECT_THAT(Out("ps '" + name_ + "*'"), StartsWith("process  user"));
    EXPECT_EQ(Out("ps " + pid + " --columns name,process"),
              fmt::format("{:<{}}  process\n{}  {:>7}\n", "name", name_.size(), name_, pid));
    EXPECT_EQ(Out("ps no-such-process"), "no such process\n");
    const std::vector<Json> sorted = Objects("ps --json --sort resident -n 3");
    ASSERT_EQ(sorted.size(), 3u);
    EXPECT_GE(sorted[0]["resident_bytes"], sorted[1]["resident_bytes"]);
    EXPECT_GE(sorted[1]["resident_bytes"], sorted[2]["resident_bytes"]);
    ExpectFailure(2, "ps --columns process,nonsense",
                  "--columns: found nonsense, expected names of: process, name, cpu");
    ExpectFailure(2, "ps --sort nonsense", "--sort: found nonsense, expected one of: process, name, cpu");
}

TEST_F(Tasks, AProcessIsAnIdANameAPatternOrAnAgentsName) {
    const auto one = StartWorker();
    StartAgent();
    for (const std::string &name :
         {std::to_string(one->Pid()), name_, "'" + name_.substr(0, name_.size() - 5) + "*'"}) {
        EXPECT_THAT(Out("mem " + name), HasSubstr(fmt::format("process               {}", one->Pid()))) << name;
    }
    EXPECT_THAT(Out("mem tasked"), HasSubstr(AgentPid()));
    const auto other = StartWorker();
    ASSERT_TRUE(Eventually([&] { return Run("mem " + name_) == 2; }));
    EXPECT_THAT(error_, HasSubstr(fmt::format("{0}: 2 processes, expected one of: {1} ({0}), ", name_,
                                              std::min(one->Pid(), other->Pid()))));
    ExpectFailure(2, "stack nobody-has-it", "nobody-has-it: no process and no agent has that name");
    ExpectFailure(2, "stack 0", "0: no process and no agent has that name");
}

TEST_F(Tasks, StackShowsOnceAndOnAverage) {
    StartAgent();
    EXPECT_THAT(Out("stack tasked"), StartsWith("thread " + AgentPid() + " ("));
    EXPECT_THAT(out_, HasSubstr("\n  #0  "));
    EXPECT_GT(Objects("stack tasked --all --json").size(), 1u);
    EXPECT_EQ(Objects("stack tasked --json")[0]["thread"], agent_->Pid());
    EXPECT_THAT(Out("stack tasked --samples 3 --every 1ms"), StartsWith("100.0 %  "));
    const Process brief(dir_.Path(), {"/bin/sleep", "0.3"});
    EXPECT_THAT(Out(fmt::format("stack {} --samples 1000 --every 1ms", brief.Pid())), StartsWith("100.0 %  "));
    EXPECT_THAT(error_, HasSubstr("; what was seen until then:\n"));
    const std::string folded = Out("stack tasked --samples 3 --every 1ms --folded");
    EXPECT_THAT(folded, HasSubstr(";"));
    EXPECT_THAT(folded, Not(HasSubstr("main+0x"))) << "a function is one, wherever it is";
    EXPECT_THAT(Out("stack tasked --samples 2 --every 1"), StartsWith("100.0 %  ")) << "in milliseconds";
    ExpectFailure(2, "stack tasked --folded", "--folded: expected --samples N");
}

TEST_F(Tasks, StackNamesNoFunctionBeyondItsSymbol) {
    const Process subject(dir_.Path(), {STRIPPED_SUBJECT});
    const std::string stack = fmt::format("stack {} ", subject.Pid());
    ASSERT_TRUE(Eventually([&] { return Out(stack).find("main+0x") != std::string::npos; })) << out_;
    EXPECT_THAT(out_, ContainsRegex(" stripped_subject\\+0x[0-9a-f]+\n"));
    EXPECT_THAT(out_, Not(HasSubstr("label_without_size")));
    EXPECT_THAT(Out(stack + "--samples 2 --every 1ms"), HasSubstr(" [stripped_subject]\n")) << "one, wherever it is";
    EXPECT_THAT(out_, HasSubstr(" main\n"));
}

TEST_F(Tasks, TopTellsProgramsAnObjectForEachView) {
    const auto worker = StartWorker();
    const std::vector<Json> views = Objects("top --json -n 2 -d 1ms");
    ASSERT_EQ(views.size(), 2u) << out_;
    const Json &processes = views[1]["processes"];
    const auto daemon =
        std::ranges::find_if(processes, [&](const Json &one) { return one["process"] == daemon_->Pid(); });
    ASSERT_NE(daemon, processes.end());
    EXPECT_GE((*daemon)["highest_permille"], (*daemon)["cpu_permille"]);
    EXPECT_GE(views[1]["cpus"].size(), 2u) << "all together, and each";
    EXPECT_GT(views[1]["memory"]["available_bytes"], 0);
    EXPECT_THAT(Out("ps no-such-process --watch | head -n 1"), StartsWith("no such process\n"));
    const Json threads = Objects(fmt::format("top {} --json", worker->Pid())).at(0)["threads"];
    ASSERT_EQ(threads.size(), 1u);
    EXPECT_EQ(threads[0]["thread"], worker->Pid());
    EXPECT_EQ(Objects("ps --json -n 1 --watch=1ms | head -n 3").size(), 3u) << "without empty lines";
}

TEST_F(Tasks, MemTellsOfNowBeforeAndMappings) {
    EXPECT_THAT(Out("mem"), StartsWith("in use "));
    const auto worker = StartWorker();
    const std::string pid = std::to_string(worker->Pid());
    EXPECT_EQ(Objects("mem " + pid + " --json").at(0)["process"], worker->Pid());
    EXPECT_THAT(Out("mem " + pid + " --maps --columns name --no-headers"), HasSubstr("[stack]"));
    ASSERT_TRUE(Eventually([&] { return !Objects("mem " + pid + " --history --json").empty(); })) << error_;
    const Json point = Objects("mem " + pid + " --history --json --last 10m").at(0);
    EXPECT_GT(point["resident_bytes"], 0);
    EXPECT_THAT(point["time"].get<std::string>(), HasSubstr("T")) << "with its zone";
    EXPECT_THAT(Out("mem --history"), StartsWith("time  "));
    ExpectFailure(2, "mem --maps", "--maps: expected a PROCESS");
    ExpectFailure(2, "mem --history --last soon", "--last: found soon, expected a time, as 30s, 10m, 1h or 7d");
}

TEST_F(Tasks, ExecWaitsForWhatTheCommandWrites) {
    StartAgent();
    EXPECT_THAT(Out("exec tasked help"), HasSubstr("crash"));
    EXPECT_EQ(Objects("exec tasked --json help").at(0)["result"], "ok");
    ExpectFailure(5, "exec tasked no-such-command", "no-such-command: failed with 2 (No such file or directory)");
}

TEST_F(Tasks, CrashesAreListedAndShown) {
    EXPECT_EQ(Out("crashes"), "no crashes\n");
    StartAgent();
    const std::string pid = AgentPid();
    EXPECT_NE(Run("exec tasked crash segv"), 0) << "nobody is left to answer";
    EXPECT_EQ(out_, "") << "which has no output";
    EXPECT_EQ(agent_->Wait(), -1);
    const std::vector<Json> crashes = Objects("crashes --json");
    ASSERT_EQ(crashes.size(), 1u) << out_;
    EXPECT_EQ(crashes[0]["process"], std::stoul(pid));
    EXPECT_EQ(crashes[0]["agent"], "tasked");
    EXPECT_THAT(crashes[0]["what"].get<std::string>(), StartsWith("signal 11 SIGSEGV"));
    EXPECT_THAT(Out("crashes list tasked --last 1h"), HasSubstr(pid));
    EXPECT_THAT(Out("crashes show 1"), HasSubstr("\n  #0 "));
    EXPECT_EQ(Out("crashes another"), "no crashes\n");
    // One keeps its number where others are left out.
    agent_ = Start({TARN_AGENT, "--name", "second", "--run-dir", dir_.Path()});
    ASSERT_TRUE(Eventually([&] { return Run("exec second help") == 0; })) << error_;
    EXPECT_NE(Run("exec second crash segv"), 0);
    EXPECT_EQ(agent_->Wait(), -1);
    EXPECT_EQ(Objects("crashes tasked --json").at(0)["number"], 2);
    EXPECT_THAT(Out("crashes show 2"), HasSubstr("agent tasked"));
    ExpectFailure(2, "crashes show 3", "3: no such crash, expected 1 to 2");
    ExpectFailure(2, "crashes show", "expected list, show N or PROCESS");
}

TEST_F(Tasks, SettingsAreToldWithTheirSourceAndSet) {
    const auto setting = [&](const std::string &name) {
        for (const Json &one : Objects("settings --json")) {
            if (one["name"] == name) {
                return one;
            }
        }
        return Json();
    };
    EXPECT_EQ(setting("cpu.begins-at")["source"], "the default");
    EXPECT_EQ(setting("cpu.begins-at")["value"], 0);
    EXPECT_EQ(setting("cpu.begins-at")["text"], "detect none");
    EXPECT_EQ(setting("cpu.begins-at")["accepts"],
              (Json{{"least", "0.0 %"}, {"most", "100.0 %"}, {"zero", "detect none"}}));
    EXPECT_THAT(setting("cpu.begins-at")["meaning"].get<std::string>(), HasSubstr("busy share"));
    EXPECT_EQ(setting("measurement.mode")["accepts"]["words"], (Json{"off", "report", "learn"}));
    EXPECT_THAT(Out("settings"), ContainsRegex(" detect none +the default\n")) << "what 0 means";
    EXPECT_EQ(Out("settings set cpu.begins-at=90% cpu.must-last=10s health.load.limit=3000"), "");
    EXPECT_EQ(Out("settings set cpu.ends-below=80%"), "") << "the others stay";
    EXPECT_EQ(setting("cpu.begins-at")["value"], 900);
    EXPECT_EQ(setting("cpu.begins-at")["source"], "a client");
    EXPECT_EQ(setting("cpu.ends-below")["value"], 800);
    EXPECT_EQ(Out("settings set cpu.begins-at=70%"), "") << "below where it ended, which isn't stated";
    EXPECT_EQ(setting("cpu.ends-below")["value"], 700);
    EXPECT_EQ(setting("health.load.limit")["value"], 3000);
    EXPECT_EQ(setting("health.load.limit")["source"], "a client");
    EXPECT_EQ(setting("health.disk.limit")["source"], "the default");
    EXPECT_EQ(Out("settings reset"), "");
    EXPECT_EQ(setting("cpu.begins-at")["source"], "the default");
    ExpectFailure(2, "settings set cpu.begin-at=90%", "cpu.begin-at: no such setting; did you mean cpu.begins-at?");
    ExpectFailure(2, "settings set cpu.begins-at=190%", "begins-at (uiValue1) is 1900 ‰, expected 0 to 1000");
    ExpectFailure(2, "settings set nonsense", "found nonsense, expected NAME=VALUE");
    ExpectFailure(5, "settings set health.disk.limit=1001",
                  "limit (uiValue) is 1001, expected a share of at most 1000");
    ExpectFailure(2, "settings set health.load.limit=3 cpu.begins-at=much", "cpu.begins-at: found much, expected");
    EXPECT_EQ(setting("health.load.limit")["value"], 3000) << "all or none";
}

// Also those that the methods which set them don't tell.
TEST_F(Tasks, EachSettingIsToldAndSet) {
    const auto all = [&] {
        std::map<std::string, Json> settings;
        for (const Json &one : Objects("settings --json")) {
            settings[one["name"].get<std::string>()] = one;
        }
        return settings;
    };
    for (const auto &[name, setting] : all()) {
        EXPECT_EQ(setting["source"], "the default") << name;
        EXPECT_FALSE(setting["value"].is_null()) << name;
    }
    EXPECT_EQ(Out("settings set starvation.on=on starvation.threshold=2s measurement.hour=3 measurement.mode=learn "
                  "date.format=day-month-year health.disk.limit=85% health.agents.on=off health.on=off"),
              "");
    std::map<std::string, Json> settings = all();
    const std::map<std::string, Json> expected{
        {"starvation.on", true},    {"starvation.threshold", 2'000'000}, {"measurement.hour", 3},
        {"measurement.minute", 0},  {"measurement.mode", "learn"},       {"date.format", "day-month-year"},
        {"health.disk.limit", 850}, {"health.agents.on", false},         {"health.on", false}};
    for (const auto &[name, value] : expected) {
        EXPECT_EQ(settings[name]["value"], value) << name;
        EXPECT_EQ(settings[name]["source"], "a client") << name;
    }
    EXPECT_EQ(settings["health.disk.on"]["value"], true) << "the limit alone was set";
    EXPECT_THAT(Out("settings --no-headers"), ContainsRegex("health.disk.limit +85.0 % +a client\n"));
    EXPECT_EQ(Out("settings set health.disk.limit=80%"), "");
    EXPECT_EQ(Out("settings set health.agents.limit=500ms"), "");
    EXPECT_EQ(all()["health.agents.on"]["value"], false) << "it stays off";
}

TEST_F(Tasks, HealthOverloadsAndLeaksTellWhatThereIs) {
    EXPECT_THAT(Out("health"), HasSubstr(" is the worst level\nlevel "));
    EXPECT_THAT(Objects("health --json"), testing::SizeIs(testing::Gt(3u)));
    EXPECT_EQ(Out("leaks --least 4000000"), "no process has grown for 5 minutes without giving back\n");
    EXPECT_EQ(Out("leaks --least 4000000 --json"), "");
    EXPECT_EQ(Run("overloads"), 0) << error_;
}

TEST_F(Tasks, OverloadsAreListedAndShown) {
    const Process busy(dir_.Path(), {"/bin/sh", "-c", "while :; do :; done"});
    const uint32_t pid = busy.Pid();
    EXPECT_EQ(Out(fmt::format("call SetCpuOvProcThreshold process={} on=on begins-at=1% must-last=0", pid)),
              "result  ok\n");
    const auto overload = [&] { // the newest of a watched process; CPUs of a busy machine have theirs
        for (const Json &one : Objects("overloads list --json")) {
            if (one["kind"] == "process") {
                return one;
            }
        }
        return Json();
    };
    ASSERT_TRUE(Eventually([&] { return !overload().is_null(); })) << error_;
    const Json newest = overload();
    EXPECT_EQ(newest["process"], pid);
    EXPECT_GT(newest["by_it_permille"], 0);
    const std::string show = "overloads show " + newest["number"].dump();
    const std::string shown = Out(show);
    EXPECT_THAT(shown, StartsWith("overload " + newest["number"].dump() + " of a watched process, began "));
    EXPECT_THAT(shown, HasSubstr("\nthread " + std::to_string(pid) + " (sh) of process "));
    EXPECT_GE(Objects("overloads show --json").at(0)["number"], newest["number"]) << "another may have begun since";
    EXPECT_EQ(Objects(show + " --json").at(0)["threads"].at(0)["pid"], pid);
    EXPECT_EQ(Out("--quiet collect -o all.tar.gz"), "all.tar.gz\n");
    std::vector<uint64_t> collected;
    for (const Json &one : Archived("all.tar.gz", "cpu-overloads.jsonl")) {
        collected.push_back(one["number"].get<uint64_t>());
    }
    EXPECT_THAT(collected, testing::Contains(newest["number"].get<uint64_t>()));
    ExpectFailure(2, "overloads show 4711", "4711: no such overload; tarnctl overloads lists them");
    ExpectFailure(2, "overloads of-late", "found of-late, expected list, or show N");
}

TEST_F(Tasks, RulesAreSetListedAndCleared) {
    EXPECT_EQ(Out("rules"), "no rules\n");
    EXPECT_EQ(Out("rules set rule=7 action=limit rate=100 'sender=worker*'"), "");
    EXPECT_THAT(Out("rules --columns rule,action,rate,sender --no-headers"), StartsWith("7  limit  100  worker*"));
    EXPECT_EQ(Objects("rules --json").at(0)["definition"]["rule"], 7);
    EXPECT_EQ(Out("rules clear"), "");
    EXPECT_EQ(Out("rules"), "no rules\n");
    ExpectFailure(2, "rules set rule=7", "missing action");
    ExpectFailure(2, "rules nonsense", "found nonsense, expected list, set NAME=VALUE..., or clear");
}

TEST_F(Tasks, WatchTellsAndRunsACommand) {
    const Process busy(dir_.Path(), {"/bin/sh", "-c", "while :; do :; done"});
    const std::string pid = std::to_string(busy.Pid());
    EXPECT_THAT(Out("watch --process " + pid +
                    " --cpu 0.1% --every 50ms --for 100ms -n 1 "
                    "--exec 'echo it is $TARN_WATCH_PROCESS'"),
                HasSubstr("begins  " + pid + " sh: CPU "));
    EXPECT_THAT(out_, HasSubstr("it is " + pid + "\n"));
    ExpectFailure(2, "watch --cpu 90", "--cpu: found 90, expected a share, such as 90%");
    EXPECT_EQ(Run("watch --process " + pid + " --mem 1 --exec 'exit 7' -n 1"), 0);
    EXPECT_THAT(error_, HasSubstr("exit 7: ended with status 7\n"));
    ExpectFailure(2, "watch --process 1", "found neither --cpu nor --mem");
    ExpectFailure(2, "watch --cpu much", "--cpu: found much, expected a share, such as 90%");
}

TEST_F(Tasks, WatchTellsThatAProcessHasEnded) {
    auto busy =
        std::make_unique<Process>(dir_.Path(), std::vector<std::string>{"/bin/sh", "-c", "while :; do :; done"});
    const std::string pid = std::to_string(busy->Pid());
    Process watch(dir_.Path(),
                  {TARNCTL, "--run-dir", dir_.Path(), "watch", "--process", pid, "--cpu", "0.1%", "--every", "50ms"});
    ASSERT_TRUE(Eventually([&] { return watch.Out().find("begins  " + pid) != std::string::npos; })) << watch.Err();
    busy.reset();
    EXPECT_TRUE(Eventually([&] { return watch.Out().find("ends    " + pid) != std::string::npos; })) << watch.Out();
}

TEST_F(Tasks, EventsAreChosenByKindNumberAndTime) {
    EXPECT_EQ(Out("settings set cpu.begins-at=90% cpu.must-last=10m"), "") << "which no busy machine adds an event to";
    StartAgent();
    ASSERT_TRUE(Eventually([&] { return Objects("events --kind agent-comes --json").size() == 1; })) << out_;
    EXPECT_THAT(Out("events"), testing::ContainsRegex(" [+-][0-9]{4} #[0-9]+ setting: .*begins-at=900"));
    EXPECT_THAT(out_, HasSubstr(fmt::format(" agent-comes: tasked ({})", AgentPid())));
    EXPECT_EQ(Out("events --since 1h"), out_);
    EXPECT_EQ(Out("events --since +1h"), "");
    const auto number = Objects("events --last 1 --json").at(0)["number"].get<uint64_t>();
    EXPECT_EQ(Objects(fmt::format("events --from {} --json", number)).size(), 1u);
    ExpectFailure(2, "events --since lately",
                  "--since: found lately, expected how long ago, such as 10m, 1h or 7d, or");
    ExpectFailure(5, "events --kind nonsense", "kinds has \"nonsense\", expected of crash assertion");
}

// Also while there is nothing that it could write to the pipe.
TEST_F(Tasks, EventsAreFollowedUntilNobodyReadsThem) {
    EXPECT_EQ(Run("events --follow --since +1h | true"), 0);
    daemon_->Signal(SIGTERM);
    daemon_->Wait();
    EXPECT_EQ(Run("events --follow | true"), 0) << "and while there is no daemon";
}

TEST_F(Tasks, EventsAreOfferedByKinds) {
    for (const tarnd::EventKindInfo &kind : tarnd::kEventKinds) {
        EXPECT_EQ(Out(fmt::format("complete -- events --kind {}", kind.name)), fmt::format("{}\n", kind.name));
    }
}

TEST_F(Tasks, CollectPutsAllIntoOneArchive) {
    EXPECT_EQ(Out("--quiet collect -o all.tar.gz --last 1h"), "all.tar.gz\n");
    const Process list(dir_.Path(), {"/bin/tar", "tzf", dir_.Path() / "all.tar.gz"});
    ASSERT_TRUE(Eventually([&] { return list.Out().find("logs.zip") != std::string::npos; })) << list.Out() << error_;
    for (const char *file : {"processes.json", "health.json", "crashes.txt", "events.jsonl", "status.json"}) {
        EXPECT_THAT(list.Out(), HasSubstr(std::string("tarn/") + file));
    }
    EXPECT_TRUE(std::filesystem::is_empty(dir_.Path() / "logs")) << "nothing is left there";
    EXPECT_FALSE(std::filesystem::exists(dir_.Path() / "all.tar.gz.part"));
    EXPECT_THAT(Archived("all.tar.gz", "settings.jsonl"), testing::SizeIs(Objects("settings --json").size()));
    const Json told = Objects("--quiet collect -o all.tar.gz --json").at(0);
    EXPECT_EQ(told["file"], "all.tar.gz");
    EXPECT_EQ(told["missing"], Json::array());
    ExpectFailure(1, "collect -o /nowhere/all.tar.gz", "/nowhere/all.tar.gz: cannot write");
    ExpectFailure(2, "collect -o - --json >/dev/null", "--json: expected -o FILE with it");
}

TEST_F(Tasks, TimeIsToldAndSet) {
    setenv("TZ", "Asia/Tokyo", 1); // of the caller; the daemon has the machine's
    const std::string daemon = Objects("time --json").at(0)["time"];
    unsetenv("TZ");
    const auto now = std::chrono::system_clock::now();
    const auto told = host::describe::ParseStatedTime(daemon, now);
    ASSERT_TRUE(told) << daemon;
    EXPECT_LT(now - *told, std::chrono::hours(1)) << daemon;
    EXPECT_LT(*told - now, std::chrono::hours(1)) << daemon;
    EXPECT_EQ(Out("time zone Etc/GMT-5"), "");
    EXPECT_THAT(Out("time"), HasSubstr("+05:00\n"));
    EXPECT_EQ(Out("time set 2030-01-02T03:04:05Z"), "");
    EXPECT_THAT(Objects("time --json").at(0)["time"].get<std::string>(), StartsWith("2030-01-02T08:04:"));
    ExpectFailure(2, "time zone Nowhere/City", "Nowhere/City: this system has no such zone");
    ExpectFailure(2, "time set", "found set, expected nothing, set TIME, or zone NAME");
}

TEST_F(Tasks, MeasureTellsTheResult) {
    EXPECT_EQ(Out("measure result"), "nothing was measured yet\n");
    EXPECT_THAT(Objects("measure forget --json").at(0)["state"].get<std::string>(), testing::Eq("none"));
    EXPECT_EQ(Run("measure nonsense"), 2);
}

TEST_F(Tasks, EachHasHelpWithExamples) {
    for (const char *task : {"ps", "top", "stack", "mem", "leaks", "crashes", "overloads", "events", "health", "watch",
                             "collect", "exec", "settings", "measure", "rules", "time"}) {
        const std::string help = Out(std::string(task) + " --help");
        EXPECT_THAT(help, HasSubstr("Examples:\n  tarnctl ")) << task;
        EXPECT_THAT(help, HasSubstr("  --json ")) << task;
        EXPECT_EQ(Out(std::string("help ") + task), help);
    }
    ExpectFailure(2, "help stacks", "stacks: no such command; did you mean stack, stats?");
    ExpectFailure(2, "ps --colums pid", "--colums: no such option; did you mean --columns?");
    ExpectFailure(2, "overloads --last 1h", "--last: no such option (tarnctl overloads --help says more)");
    ExpectFailure(2, "leaks --last 1m", "--last: found 1m, expected 5m at least");
    ExpectFailure(2, "colect", "colect: no such command; did you mean collect?");
    EXPECT_THAT(Out("--version"), HasSubstr("\ntarnd 0."));
    EXPECT_EQ(Out("help"), Out("--help"));
}

// ---- On a terminal ----

class OnScreen : public Tasks {
protected:
    OnTerminal Show(const std::string &environment, const std::string &arguments, unsigned short columns = 40) const {
        const std::string line =
            fmt::format("{} exec {} --run-dir {} {}", environment, TARNCTL, dir_.Path().string(), arguments);
        return {{"/bin/sh", "-c", line}, {24, columns, 0, 0}};
    }
};

TEST_F(OnScreen, LinesAreCutAndHeadsBold) {
    OnTerminal ps = Show("TARN_PAGER=cat", "ps");
    EXPECT_EQ(ps.Wait(), 0);
    EXPECT_THAT(ps.Output(), HasSubstr("\033[1m"));
    EXPECT_THAT(ps.Output(), HasSubstr("…"));
    OnTerminal plain = Show("NO_COLOR=1 TARN_PAGER=cat", "ps");
    EXPECT_EQ(plain.Wait(), 0);
    EXPECT_THAT(plain.Output(), Not(HasSubstr("\033[1m")));
}

TEST_F(OnScreen, APagerGetsWholeLines) {
    OnTerminal ps = Show("TARN_PAGER='sed s/^/paged:/'", "ps");
    EXPECT_EQ(ps.Wait(), 0);
    EXPECT_THAT(ps.Output(), HasSubstr("paged:"));
    EXPECT_THAT(ps.Output(), Not(HasSubstr("…")));
    OnTerminal health = Show("TARN_PAGER='sed s/^/paged:/'", "health");
    EXPECT_EQ(health.Wait(), 0);
    EXPECT_THAT(health.Output(), StartsWith("paged:")) << "also what stands above the table";
}

TEST_F(OnScreen, WhoLeavesThePagerHasSeenEnough) {
    std::string processes; // more than a pipe holds
    for (size_t i = 0; i < 200; ++i) {
        processes += i == 0 ? "{}" : ",{}";
    }
    const std::string file = dir_.Path() / "message";
    Out(fmt::format("encode SysCpuStatInfo '{{\"pstProc\": [{}]}}' -o {}", processes, file));
    ASSERT_GT(Out("decode SysCpuStatInfo " + file).size(), 65536u);
    OnTerminal decoded = Show("TARN_PAGER='head -n 1'", "decode SysCpuStatInfo " + file, 80);
    EXPECT_EQ(decoded.Wait(), 0);
    EXPECT_THAT(decoded.Output(), Not(HasSubstr("cannot write")));
}

TEST_F(OnScreen, WithoutItsPagerAllIsShown) {
    OnTerminal ps = Show("TARN_PAGER=no-such-pager", "ps", 80);
    EXPECT_EQ(ps.Wait(), 0);
    EXPECT_THAT(ps.Output(), HasSubstr("tarnctl: no-such-pager: no such pager; TARN_PAGER or PAGER names one"));
    EXPECT_THAT(ps.Output(), HasSubstr("tarnd"));
}

TEST_F(OnScreen, EightyColumnsHaveTheNames) {
    OnTerminal ps = Show("TARN_PAGER=cat", "ps tarnd", 80);
    EXPECT_EQ(ps.Wait(), 0);
    EXPECT_THAT(ps.Output(), ContainsRegex("name .*\r\n.* tarnd "));
    OnTerminal top = Show("", "top", 80);
    ASSERT_TRUE(top.Shows("busiest threads")) << top.Output();
    top.Press("j");
    EXPECT_TRUE(top.Shows(" <  ")) << top.Output();
    EXPECT_THAT(top.Output(), Not(ContainsRegex("(waiting for I/O|available|I/O) [^\r\n]*…")));
    top.Press("q");
    EXPECT_EQ(top.Wait(), 0);
}

// The application's command ends when the application does.
TEST_F(OnScreen, ACommandThatIsInterruptedIsForgotten) {
    agent_ = Start({SLOW_AGENT, dir_.Path()});
    ASSERT_TRUE(Eventually([&] { return Run("exec slow help") == 0; })) << error_ << agent_->Err();
    OnTerminal exec = Show("", "exec slow wait", 80);
    ASSERT_TRUE(exec.Shows("\rthe command runs, ")) << exec.Output();
    exec.Press("\003");
    EXPECT_EQ(exec.Wait(), -SIGINT);
    EXPECT_THAT(exec.Output(), HasSubstr("\r\033[Ktarnctl: interrupted: what waited is forgotten"));
    OnTerminal another = Show("", "--quiet exec slow help", 80); // which waits for the first
    ASSERT_TRUE(Eventually([&] { return Run("call DBGCmdExecResultGetByTarnd process=" + AgentPid()) == 5; })) << out_;
    another.Press("\003");
    EXPECT_EQ(another.Wait(), -SIGINT);
    EXPECT_THAT(another.Output(), Not(HasSubstr("the command runs")));
}

TEST_F(OnScreen, ACallThatIsInterruptedIsCancelled) {
    daemon_->Signal(SIGSTOP);
    OnTerminal call = Show("", "call PidIsOnline process=1 --deadline 10m", 80);
    ASSERT_TRUE(call.Shows("\rwaiting for PidIsOnline, ")) << call.Output();
    call.Press("\003");
    EXPECT_EQ(call.Wait(), -SIGINT);
    EXPECT_THAT(call.Output(), HasSubstr("PidIsOnline: interrupted, and cancelled"));
    daemon_->Signal(SIGCONT);
}

TEST_F(OnScreen, SamplesThatAreInterruptedAreShown) {
    StartAgent();
    OnTerminal stack = Show("TARN_PAGER=cat", "stack tasked --samples 100000 --every 10ms", 80);
    ASSERT_TRUE(stack.Shows("samples [")) << stack.Output();
    EXPECT_THAT(stack.Output(), HasSubstr(" of 100000"));
    stack.Press("\003");
    EXPECT_EQ(stack.Wait(), 0);
    EXPECT_THAT(stack.Output(), HasSubstr("100.0 %  "));
}

TEST_F(OnScreen, AnInterruptedCollectionLeavesNothing) {
    const std::string file = dir_.Path() / "part.tar.gz";
    daemon_->Signal(SIGSTOP);
    OnTerminal collect = Show("", "collect -o " + file, 80);
    ASSERT_TRUE(collect.Shows("\rcollecting [")) << collect.Output();
    EXPECT_TRUE(std::filesystem::exists(file + ".part"));
    collect.Press("\003");
    EXPECT_EQ(collect.Wait(), -SIGINT);
    EXPECT_FALSE(std::filesystem::exists(file + ".part"));
    EXPECT_FALSE(std::filesystem::exists(file));
    daemon_->Signal(SIGCONT);
}

TEST_F(OnScreen, WideRecordsGoDownwards) {
    OnTerminal call = Show("TARN_PAGER=cat", fmt::format("call GetOsProcessMemInfo process={}", getpid()), 80);
    EXPECT_EQ(call.Wait(), 0);
    EXPECT_THAT(call.Output(), HasSubstr("[0]\r\n    process "));
}

} // namespace
