// The programs under a service manager: what they tell it, and what they write where standard error is the journal.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <regex>

#include "host/osal/descriptor.h"
#include "tests/host/programs.h"

namespace {

using namespace std::chrono_literals;

size_t CountOf(const std::string &text, const std::string &part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != text.npos; at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

// Where the programs send what the manager is to know.
class NotifySocket {
public:
    explicit NotifySocket(const std::filesystem::path &path)
        : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket") {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.string().copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(fd_.Fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    }

    // The next message; empty when none comes.
    std::string Next(std::chrono::milliseconds most = 60s) const {
        pollfd wait{fd_.Fd(), POLLIN, 0};
        char text[4096];
        if (poll(&wait, 1, static_cast<int>(most.count())) != 1) {
            return "";
        }
        return {text, static_cast<size_t>(std::max<ssize_t>(recv(fd_.Fd(), text, sizeof text, 0), 0))};
    }

    // The next that isn't the watchdog's.
    std::string NextState() const {
        std::string text = Next();
        while (text == kWorks) {
            text = Next();
        }
        return text;
    }

    static constexpr const char *kWorks = "WATCHDOG=1";

private:
    const host::Descriptor fd_;
};

class Supervised : public kit::ProgramsTest {
protected:
    std::unique_ptr<kit::Process> Start(const std::string &line, const std::string &variables = "") const {
        return Shell("env NOTIFY_SOCKET=" + Path().string() + " " + variables + " " + line);
    }
    std::filesystem::path Path() const { return dir_.Path() / "notify"; }
    std::string Serving() const { return "READY=1\nSTATUS=serving in " + RunDir().string(); }

    const std::string daemon_ = TARND " --log-dir $log --run-dir $run";
    const NotifySocket manager_{Path()};
};

TEST_F(Supervised, IsReadyWhenItServesAndTellsThatItStops) {
    for (const std::string &line : {daemon_, TARN_MASTER " --run-dir $run " + Write("config", "")}) {
        const auto process = Start(line);
        EXPECT_EQ(manager_.Next(), Serving()) << process->Err();
        EXPECT_FALSE(Sockets().empty()) << "whoever is started after it can connect";
        EXPECT_EQ(process->Stop(), 0);
        EXPECT_EQ(manager_.Next(), "STOPPING=1");
    }
}

TEST_F(Supervised, IsNotReadyWhereItDoesNotStart) {
    const auto process = Start(daemon_ + " --policy /proc/none");
    EXPECT_EQ(process->Wait(), 1);
    EXPECT_EQ(manager_.Next(0ms), "");
}

TEST_F(Supervised, TellsHowAReloadEnded) {
    const std::string policy = Write("policy", "");
    const auto process = Start(daemon_ + " --policy " + policy);
    EXPECT_EQ(manager_.Next(), Serving());
    process->Signal(SIGHUP);
    const std::string reloading = manager_.Next();
    EXPECT_TRUE(std::regex_match(reloading, std::regex("RELOADING=1\nMONOTONIC_USEC=[1-9][0-9]*"))) << reloading;
    EXPECT_EQ(manager_.Next(), Serving());
    Write("policy", "nonsense\n");
    process->Signal(SIGHUP);
    EXPECT_EQ(manager_.Next().find("RELOADING=1"), 0);
    EXPECT_EQ(manager_.Next().find(Serving() + "; " + policy + ":1: \"nonsense\", expected reading"), 0);
    EXPECT_EQ(process->Stop(), 0);
}

// One whose socket has gone can't be reached, though its main thread runs.
TEST_F(Supervised, FeedsTheWatchdogWhileItAnswersOnly) {
    const auto process = Start(daemon_, "WATCHDOG_USEC=200000");
    EXPECT_EQ(manager_.Next(), Serving());
    EXPECT_EQ(manager_.Next(), NotifySocket::kWorks);
    EXPECT_EQ(manager_.Next(), NotifySocket::kWorks);
    const std::filesystem::path socket = RunDir() / "TarnSysdiagTarnd.sock", away = RunDir() / "away";
    const auto failures = [&] { return CountOf(process->Err(), "the server does not answer"); };
    std::filesystem::rename(socket, away);
    const size_t before = failures();
    // The first may be of a question that was asked before, and so may be an answer.
    ASSERT_TRUE(kit::Eventually([&] { return failures() >= before + 2; })) << process->Err();
    while (!manager_.Next(0ms).empty()) {
    }
    ASSERT_TRUE(kit::Eventually([&] { return failures() >= before + 4; })) << process->Err();
    EXPECT_EQ(manager_.Next(0ms), "");
    std::filesystem::rename(away, socket);
    EXPECT_EQ(manager_.Next(), NotifySocket::kWorks);
    EXPECT_EQ(process->Stop(), 0);
    EXPECT_EQ(manager_.NextState(), "STOPPING=1");
}

TEST_F(Supervised, IsAliveThoughThePolicyDeniesItsQuestion) {
    const auto process = Start(daemon_ + " --policy " + Write("policy", "reading nobody\n"), "WATCHDOG_USEC=200000");
    EXPECT_EQ(manager_.Next(), Serving());
    EXPECT_EQ(manager_.Next(), NotifySocket::kWorks);
    EXPECT_EQ(process->Stop(), 0);
}

TEST_F(Supervised, GivesTheJournalPrioritiesAndNoTimes) {
    const std::string journal = Write("journal", "");
    struct stat status {};
    ASSERT_EQ(stat(journal.c_str(), &status), 0);
    const std::string stream = fmt::format("JOURNAL_STREAM={}:{}", status.st_dev, status.st_ino);
    const auto process =
        Start(daemon_ + " --log-level debug --policy " + Write("policy", "") + " 2>>" + journal, stream);
    EXPECT_EQ(manager_.Next(), Serving());
    Write("policy", "nonsense\n");
    process->Signal(SIGHUP);
    EXPECT_EQ(manager_.Next().find("RELOADING=1"), 0);
    EXPECT_EQ(manager_.Next().find(Serving()), 0);
    EXPECT_EQ(process->Stop(), 0);
    std::istringstream lines(kit::TextOfFile(journal));
    std::map<char, size_t> priorities;
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(std::regex_search(line, std::regex("^<[2-7]>\\[[0-9]+\\] \\S"))) << line;
        ++priorities[line[1]];
    }
    EXPECT_NE(priorities['6'], 0) << "it serves";
    EXPECT_NE(priorities['3'], 0) << "the policy's mistake";
}

TEST_F(Supervised, KeepsItsLinesWhereStandardErrorIsNotTheJournal) {
    const auto process = Start(daemon_, "JOURNAL_STREAM=1:1");
    EXPECT_EQ(manager_.Next(), Serving());
    EXPECT_EQ(process->Stop(), 0);
    EXPECT_TRUE(std::regex_search(process->Err(), std::regex("^20[0-9-]+ [0-9:.]+ info \\["))) << process->Err();
}

} // namespace
