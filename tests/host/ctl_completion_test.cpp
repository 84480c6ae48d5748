// What real shells complete of tarnctl's command line.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/common.h"

#include "tests/host/on_terminal.h"
#include "tests/host/tasks_kit.h"

namespace {

using namespace kit;

// What is typed, and the line that a Tab makes of it.
struct Typed {
    std::string word;
    std::string line;
};
const Typed kTyped[] = {
    {"tarnctl cra", "tarnctl crashes "},
    {"tarnctl crashes sho", "tarnctl crashes show "},
    {"tarnctl call PidIs", "tarnctl call PidIsOnline "},
    {"tarnctl call --one", "tarnctl call --oneway "},
    {"tarnctl --run-dir . decode DstWe", "tarnctl --run-dir . decode DstWeek "},
    {"tarnctl call SysOvLoadCpuThresholdSet begins-at=90% e", "begins-at=90% ends-below="},
    {"tarnctl call SetDst rule.mode=by-d", "rule.mode=by-date "},
    {"tarnctl settings set cpu.beg", "cpu.begins-at="},
    {"tarnctl completion z", "tarnctl completion zsh "},
    {"tarnctl help col", "tarnctl help collect "},
    {"tarnctl exec task", "tarnctl exec tasked "},
    {"tarnctl call GetTaskInfo @ctl_no_se", "@ctl_no_secret"},
};

class Completion : public Tasks {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(Tasks::SetUp());
        worker_ = StartWorker();
        StartAgent();
        std::ofstream(dir_.Path() / "ctl_no_secret");
        ASSERT_TRUE(Eventually([&] { return Run("mem " + name_) == 0; })) << error_;
    }

    // Puts tarnctl in reach of a shell.
    std::string Prepare() const {
        return fmt::format("cd {0}; export TARN_RUN_DIR={0} PATH={1}:$PATH; ", dir_.Path().string(),
                           std::filesystem::path(TARNCTL).parent_path().string());
    }

    std::vector<Typed> AllTyped() const {
        std::vector<Typed> all(std::begin(kTyped), std::end(kTyped));
        all.push_back({"tarnctl stack " + name_.substr(0, name_.size() - 2), "tarnctl stack " + name_ + " "});
        return all;
    }

    void ExpectCompleted(OnTerminal &shell) const {
        for (const Typed &typed : AllTyped()) {
            shell.Forget();
            shell.Press(typed.word + "\t");
            ASSERT_TRUE(shell.Shows(typed.line)) << typed.word << ": " << shell.Output();
            shell.Press("\025\n"); // the line away
        }
        shell.Press("exit\n");
        EXPECT_EQ(shell.Wait(), 0);
    }

    std::unique_ptr<Process> worker_;
};

constexpr winsize kSize{40, 200, 0, 0};

TEST_F(Completion, OfBash) {
    OnTerminal bash({"/bin/bash", "--norc", "--noprofile", "-i"}, kSize, "dumb");
    bash.Press(Prepare() + ". <(tarnctl completion bash); echo rea''dy\n");
    ASSERT_TRUE(bash.Shows("ready")) << bash.Output();
    ExpectCompleted(bash);
}

TEST_F(Completion, OfZsh) {
    OnTerminal zsh({"/usr/bin/env", "-u", "ZDOTDIR", "/usr/bin/zsh", "-f", "-i"}, kSize, "dumb");
    zsh.Press(Prepare() + "autoload -Uz compinit; compinit -u -D; . <(tarnctl completion zsh); echo rea''dy\n");
    ASSERT_TRUE(zsh.Shows("ready\r\n")) << zsh.Output();
    ExpectCompleted(zsh);
}

TEST_F(Completion, OfFish) {
    for (const Typed &typed : AllTyped()) {
        const std::string line =
            fmt::format("{}tarnctl completion fish | source; complete -C '{}'", Prepare(), typed.word);
        Process fish(dir_.Path(),
                     {"/usr/bin/env", "HOME=" + dir_.Path().string(), "/usr/bin/fish", "--no-config", "-c", line});
        EXPECT_EQ(fish.Wait(), 0) << fish.Err();
        std::string last = typed.line;
        last = last.substr(last.find_last_of(' ', last.size() - 2) + 1);
        last.erase(last.find_last_not_of(' ') + 1);
        EXPECT_THAT(fish.Out(), testing::HasSubstr(last.starts_with('@') ? last.substr(1) : last)) << typed.word;
    }
}

TEST_F(Completion, OfferIsQuietWhereNobodyAnswers) {
    EXPECT_EQ(daemon_->Stop(), 0);
    EXPECT_EQ(Out("complete -- stack x"), "");
    EXPECT_EQ(Out("complete -- nonsense x"), "");
    EXPECT_EQ(Out("complete"), "");
    EXPECT_EQ(error_, "");
    EXPECT_EQ(Run("completion tcsh"), 2);
    EXPECT_EQ(error_, "tarnctl: found tcsh, expected a shell: bash, zsh, fish\n");
}

} // namespace
