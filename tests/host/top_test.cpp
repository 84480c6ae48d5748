// tarnctl top: on a terminal of the test's own, with keys and sizes, and in batch.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/common.h"

#include "tests/host/on_terminal.h"

namespace {

using namespace kit;

constexpr std::string_view kEnter = "\033[?1049h\033[?25l", kLeave = "\033[?25h\033[?1049l";
constexpr std::string_view kFrameStart = "\033[H", kFrameEnd = "q ends";

// The lines of the first whole frame that it writes from now on, which a key asks for.
std::vector<std::string> FrameAfter(OnTerminal &top, const std::string &key) {
    top.Forget();
    top.Press(key);
    EXPECT_TRUE(top.Shows(kFrameEnd)) << top.Output();
    const std::string &output = top.Output();
    const size_t start = output.find(kFrameStart) + kFrameStart.size();
    std::istringstream frame(output.substr(start, output.find(kFrameEnd) - start));
    std::vector<std::string> lines;
    for (std::string line; std::getline(frame, line);) {
        lines.push_back(line.substr(0, line.find("\033[K")));
    }
    return lines;
}

class Top : public testing::Test {
protected:
    static constexpr winsize kLarge{40, 200, 0, 0};

    // The daemon compares samples: the second must have been taken.
    void SetUp() override {
        ASSERT_TRUE(Eventually([this] { return Process(dir_.Path(), Command({})).Wait() == 0; })) << daemon_.Err();
    }
    std::vector<std::string> Command(const std::vector<std::string> &more) const {
        std::vector<std::string> command{TARNCTL, "--run-dir", dir_.Path(), "top"};
        command.insert(command.end(), more.begin(), more.end());
        return command;
    }
    // Frames come when a key asks for them: the time between two is longer than a test.
    OnTerminal Start(winsize size = kLarge) const { return {Command({"-d", "10m"}), size}; }
    std::string Batch(const std::vector<std::string> &more) const {
        Process batch(dir_.Path(), Command(more));
        EXPECT_EQ(batch.Wait(), 0) << batch.Err();
        return batch.Out();
    }

    const TempDir dir_;
    Process daemon_{dir_.Path(),
                    {TARND, "--run-dir", dir_.Path(), "--log-dir", dir_.Path(), "--sample-interval", "100"}};
};

size_t Count(std::string_view text, std::string_view part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != text.npos; at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

// Which of a frame's lines starts with the text.
size_t LineOf(const std::vector<std::string> &lines, std::string_view text) {
    const auto starts = [&](const std::string &line) { return line.starts_with(text); };
    return static_cast<size_t>(std::find_if(lines.begin(), lines.end(), starts) - lines.begin());
}

size_t Characters(const std::string &line) {
    return static_cast<size_t>(
        std::count_if(line.begin(), line.end(), [](char byte) { return (static_cast<uint8_t>(byte) & 0xC0) != 0x80; }));
}

TEST_F(Top, TakesTheTerminalUntilQAndGivesItBackAsItWas) {
    OnTerminal top = Start();
    ASSERT_TRUE(top.Shows(kFrameEnd)) << top.Output();
    EXPECT_EQ(top.Output().rfind(kEnter, 0), 0) << "the first that it writes";
    EXPECT_TRUE(top.IsRaw());
    top.Press("q");
    EXPECT_EQ(top.Wait(), 0);
    EXPECT_TRUE(top.Output().ends_with(kLeave)) << top.Output();
    EXPECT_TRUE(top.IsAsBefore());
}

TEST_F(Top, AnyOtherKeyAsksForANewFrame) {
    OnTerminal top = Start();
    ASSERT_TRUE(top.Shows(kFrameEnd));
    const auto lines = FrameAfter(top, "x");
    EXPECT_EQ(LineOf(lines, "CPU busy "), 0);
    EXPECT_LT(LineOf(lines, "PROCESS "), LineOf(lines, "busiest threads"));
    EXPECT_LT(LineOf(lines, "THREAD "), lines.size());
    EXPECT_EQ(Count(top.Output(), kFrameEnd), 1) << "one key, one frame";
}

TEST_F(Top, FitsTheTerminalAlsoWhenThatIsResized) {
    OnTerminal top = Start();
    ASSERT_TRUE(top.Shows(kFrameEnd));
    const auto large = FrameAfter(top, " ");
    const size_t header = LineOf(large, "PROCESS ");
    ASSERT_LT(header, large.size());
    EXPECT_NE(large[header].find(" USER"), std::string::npos);

    constexpr winsize kSmall{12, 40, 0, 0};
    top.Resize(kSmall);
    const auto small = FrameAfter(top, " ");
    EXPECT_LT(small.size(), large.size());
    EXPECT_LE(small.size(), kSmall.ws_row) << "with the last line, which has \"q ends\"";
    for (const std::string &line : small) {
        EXPECT_LE(Characters(line), kSmall.ws_col) << line;
    }
    EXPECT_LT(LineOf(small, "PROCESS "), small.size());

    top.Resize(kLarge);
    const auto again = FrameAfter(top, " ");
    EXPECT_NE(again.at(header).find(" USER"), std::string::npos);
}

TEST_F(Top, EndsAfterSoManyFrames) {
    OnTerminal top(Command({"-n", "3", "-d", "1ms"}), kLarge);
    EXPECT_EQ(top.Wait(), 0);
    EXPECT_EQ(Count(top.Output(), kFrameEnd), 3);
    EXPECT_TRUE(top.IsAsBefore());
}

TEST_F(Top, GivesTheTerminalBackWhenInterruptedOrEnded) {
    for (const int signal : {SIGINT, SIGTERM}) {
        OnTerminal top = Start();
        ASSERT_TRUE(top.Shows(kFrameEnd));
        if (signal == SIGINT) {
            top.Press("\003"); // as the key does
        } else {
            top.Signal(signal);
        }
        EXPECT_EQ(top.Wait(), 0) << signal;
        EXPECT_TRUE(top.Output().ends_with(kLeave)) << signal;
        EXPECT_TRUE(top.IsAsBefore()) << signal;
    }
}

TEST_F(Top, LendsTheTerminalToTheShellWhileItIsSuspended) {
    OnTerminal top = Start();
    ASSERT_TRUE(top.Shows(kFrameEnd));
    top.Forget();
    top.Press("\032");
    ASSERT_TRUE(top.Stops());
    EXPECT_TRUE(top.Shows(kLeave));
    EXPECT_TRUE(top.IsAsBefore());

    top.Forget();
    top.Signal(SIGCONT);
    EXPECT_TRUE(top.Shows(kEnter));
    EXPECT_TRUE(Eventually([&] { return top.IsRaw(); }));
    top.Press("q");
    EXPECT_EQ(top.Wait(), 0);
    EXPECT_TRUE(top.IsAsBefore());
}

TEST_F(Top, EndsWithItsTerminal) {
    OnTerminal top = Start();
    ASSERT_TRUE(top.Shows(kFrameEnd));
    top.HangUp();
    EXPECT_EQ(top.Wait(), -SIGHUP);
}

TEST_F(Top, ADaemonThatEndsIsToldOnTheTerminalAsItWas) {
    OnTerminal top = Start();
    ASSERT_TRUE(top.Shows(kFrameEnd));
    EXPECT_EQ(daemon_.Stop(), 0);
    top.Press(" ");
    EXPECT_EQ(top.Wait(), 3);
    EXPECT_NE(top.Output().find("tarnctl: TarnSysdiagTarnd.", top.Output().find(kLeave)), std::string::npos)
        << top.Output();
    EXPECT_TRUE(top.IsAsBefore());
}

TEST_F(Top, WithoutADaemonLeavesTheTerminalAlone) {
    EXPECT_EQ(daemon_.Stop(), 0);
    OnTerminal top = Start();
    EXPECT_EQ(top.Wait(), 3);
    EXPECT_EQ(top.Output().find('\033'), std::string::npos) << top.Output();
    EXPECT_NE(top.Output().find("tarnctl: TarnSysdiagTarnd."), std::string::npos) << top.Output();
}

TEST_F(Top, OnATerminalThatCannotMoveItsCursorPrintsOnce) {
    OnTerminal top(Command({}), kLarge, "dumb");
    EXPECT_EQ(top.Wait(), 0);
    EXPECT_EQ(top.Output().find('\033'), std::string::npos) << top.Output();
    EXPECT_EQ(Count(top.Output(), "CPU busy "), 1);
}

TEST_F(Top, InBatchPrintsWholeFramesWithoutControls) {
    const std::string once = Batch({});
    EXPECT_EQ(Count(once, "CPU busy "), 1);
    EXPECT_EQ(once.rfind("CPU busy ", 0), 0);
    const std::string twice = Batch({"-n", "2", "-d", "1ms"});
    for (const char *part : {"CPU busy ", " processes\n", "\nPROCESS ", "\nbusiest threads\n", "\nTHREAD "}) {
        EXPECT_EQ(Count(twice, part), 2) << part;
    }
    EXPECT_NE(twice.find("\n\nCPU busy "), std::string::npos) << "an empty line between frames";
    EXPECT_EQ(twice.find('\033'), std::string::npos);
}

// The processes of a batch's table, with their shares.
std::vector<std::pair<uint32_t, double>> ProcessesIn(const std::string &batch) {
    std::istringstream in(batch);
    std::string line;
    while (std::getline(in, line) && !line.starts_with("PROCESS ")) {
    }
    std::vector<std::pair<uint32_t, double>> processes;
    for (std::pair<uint32_t, double> process; std::getline(in, line) && !line.empty();) {
        if (line[line.find_first_not_of(' ')] == '-') { // nobody's
            process.first = 0;
            EXPECT_EQ(sscanf(line.c_str(), " - %lf%%", &process.second), 1) << line;
        } else {
            EXPECT_EQ(sscanf(line.c_str(), "%u %lf%%", &process.first, &process.second), 2) << line;
        }
        processes.push_back(process);
    }
    return processes;
}

TEST_F(Top, ShowsTheBusiestProcessesFirst) {
    const Process busy(dir_.Path(), {"/bin/sh", "-c", "while :; do :; done"});
    EXPECT_TRUE(Eventually([&] {
        const auto processes = ProcessesIn(Batch({}));
        EXPECT_LE(processes.size(), 15);
        EXPECT_TRUE(std::is_sorted(processes.rbegin(), processes.rend(),
                                   [](const auto &left, const auto &right) { return left.second < right.second; }));
        return std::any_of(processes.begin(), processes.end(),
                           [&](const auto &process) { return process.first == busy.Pid() && process.second > 0; });
    })) << "a busy process is among those shown";
}

TEST_F(Top, SaysThatAProcessHasEnded) {
    Process ended(dir_.Path(), {"/bin/true"});
    const std::string pid = std::to_string(ended.Pid());
    EXPECT_EQ(ended.Wait(), 0);
    const std::string batch = Batch({pid});
    EXPECT_NE(batch.find("\nprocess " + pid + " has ended\n"), std::string::npos) << batch;
    EXPECT_EQ(batch.rfind("CPU busy ", 0), 0) << "the system is still told";
}

TEST_F(Top, SaysWhatItsOptionsTake) {
    for (const char *time : {"0s", "61m", "soon", "-1s"}) {
        Process top(dir_.Path(), Command({"-d", time}));
        EXPECT_EQ(top.Wait(), 2) << time;
        EXPECT_NE(top.Err().find(std::string("-d: found ") + time + ", expected a time of 1ms to 60m"),
                  std::string::npos)
            << top.Err();
    }
    Process top(dir_.Path(), Command({"-n", "many"}));
    EXPECT_EQ(top.Wait(), 2);
    EXPECT_NE(top.Err().find("-n"), std::string::npos) << top.Err();
}

} // namespace
