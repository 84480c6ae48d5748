// What the programs that serve read again on SIGHUP, and that a mistake changes nothing.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <sys/stat.h>

#include "tests/host/programs.h"

namespace {

struct Program {
    const char *service;
    std::string line;
};

class Reload : public kit::ProgramsTest {
protected:
    std::vector<Program> Programs() const {
        return {{"TarnSysdiagTarnd", TARND " --log-dir $log --run-dir $run"},
                {"TarnSysdiagMaster", TARN_MASTER " --run-dir $run " + Write("config", "")}};
    }
    mode_t SocketMode(const Program &program) const {
        struct stat status {};
        EXPECT_EQ(lstat((RunDir() / (std::string(program.service) + ".sock")).c_str(), &status), 0);
        return status.st_mode & 07777;
    }
    std::vector<std::string> Mistakes(const Program &program) const {
        host::Client client({.runDir = RunDir()});
        host::ServerStatus status;
        const host::CallOutcome outcome = AskStatus(client, program.service, 0, status);
        EXPECT_TRUE(outcome.Ok()) << outcome.text;
        return status.mistakes;
    }
    std::string Stats(const Program &program) const {
        const auto stats = Shell(std::string(TARNCTL " --run-dir $run stats ") + program.service);
        EXPECT_EQ(stats->Wait(), 0) << stats->Err();
        return stats->Out();
    }
};

TEST_F(Reload, ThePolicyHoldsFromThenOn) {
    for (const Program &program : Programs()) {
        const std::string policy = Write("policy", "");
        const auto process = Shell(program.line + " --policy " + policy);
        ASSERT_TRUE(Serves(program.service)) << process->Err();
        const mode_t closed = SocketMode(program);
        Write("policy", "reading anyone\n");
        process->Signal(SIGHUP);
        EXPECT_TRUE(kit::ComesToHave([&] { return process->Err(); }, policy + " read again\n")) << process->Err();
        EXPECT_TRUE(kit::Eventually([&] { return SocketMode(program) == 0666; })) << "others may connect";
        Write("policy", "reading nobody\n");
        process->Signal(SIGHUP);
        EXPECT_TRUE(kit::Eventually([&] { return !Answers(program.service); }));
        Write("policy", "");
        process->Signal(SIGHUP);
        EXPECT_TRUE(kit::Eventually([&] { return Answers(program.service) && SocketMode(program) == closed; }));
        EXPECT_EQ(process->Stop(), 0);
    }
}

TEST_F(Reload, AMistakeInThePolicyChangesNothingAndIsTold) {
    for (const Program &program : Programs()) {
        const std::string policy = Write("policy", "reading anyone\n");
        const auto process = Shell(program.line + " --policy " + policy);
        ASSERT_TRUE(Serves(program.service)) << process->Err();
        EXPECT_EQ(Mistakes(program), std::vector<std::string>());
        Write("policy", "reading nobody\nnonsense nobody\n");
        process->Signal(SIGHUP);
        const std::string where = policy + ":2: \"nonsense\", expected reading, ";
        ASSERT_TRUE(kit::ComesToHave([&] { return process->Err(); }, "the policy before holds\n")) << process->Err();
        EXPECT_NE(process->Err().find(where), std::string::npos) << process->Err();
        ASSERT_TRUE(kit::Eventually([&] { return Mistakes(program).size() == 1; })) << "reading is still anyone's";
        EXPECT_EQ(Mistakes(program)[0].find(where), 0) << Mistakes(program)[0];
        EXPECT_NE(Stats(program).find(where), std::string::npos) << Stats(program);
        Write("policy", "reading anyone\n");
        process->Signal(SIGHUP);
        EXPECT_TRUE(kit::Eventually([&] { return Mistakes(program).empty(); }));
        EXPECT_EQ(process->Stop(), 0);
    }
}

TEST_F(Reload, AMistakeInTheMastersConfigurationIsToldBesideThatInThePolicy) {
    const Program master = Programs()[1];
    const std::string policy = Write("policy", "");
    const auto process = Shell(master.line + " --policy " + policy);
    ASSERT_TRUE(Serves(master.service)) << process->Err();
    Write("policy", "nonsense\n");
    Write("config", "[nonsense]\n");
    process->Signal(SIGHUP);
    EXPECT_TRUE(kit::Eventually([&] { return Mistakes(master).size() == 2; }));
    Write("config", "");
    process->Signal(SIGHUP);
    EXPECT_TRUE(kit::Eventually([&] { return Mistakes(master).size() == 1; }));
    EXPECT_EQ(process->Stop(), 0);
}

// As logrotate does it.
TEST_F(Reload, TheLogIsOpenedAnew) {
    for (const Program &program : Programs()) {
        const std::filesystem::path log = dir_.Path() / "a.log", rotated = dir_.Path() / "a.log.1";
        const auto process = Shell(program.line + " --log-file " + log.string());
        const auto text = [](const std::filesystem::path &file) { return [file] { return kit::TextOfFile(file); }; };
        ASSERT_TRUE(kit::ComesToHave(text(log), "serving in ")) << process->Err();
        std::filesystem::rename(log, rotated);
        process->Signal(SIGHUP);
        ASSERT_TRUE(kit::Eventually([&] { return std::filesystem::exists(log); }));
        EXPECT_EQ(process->Stop(), 0);
        EXPECT_NE(kit::TextOfFile(log).find("signal 15: shutting down\n"), std::string::npos);
        EXPECT_EQ(kit::TextOfFile(rotated).find("signal 15"), std::string::npos);
        std::filesystem::remove(log);
        std::filesystem::remove(rotated);
    }
}

TEST_F(Reload, ALogThatCannotBeOpenedGoesOnWhereItWas) {
    const Program daemon = Programs()[0];
    const std::filesystem::path log = dir_.Path() / "a.log", rotated = dir_.Path() / "a.log.1";
    const auto process = Shell(daemon.line + " --log-file " + log.string());
    ASSERT_TRUE(Serves(daemon.service)) << process->Err();
    std::filesystem::rename(log, rotated);
    std::filesystem::create_directory(log);
    process->Signal(SIGHUP);
    EXPECT_TRUE(
        kit::ComesToHave([&] { return kit::TextOfFile(rotated); },
                         "log file " + log.string() + ": Is a directory; the log goes on in the file before\n"));
    EXPECT_EQ(Mistakes(daemon).size(), 1);
    EXPECT_EQ(process->Stop(), 0);
}

TEST_F(Reload, ALogThatCannotBeOpenedAtTheStartIsNoStart) {
    const auto process = Shell(Programs()[0].line + " --log-file /proc/none/a.log");
    EXPECT_EQ(process->Wait(), 1);
    EXPECT_NE(process->Err().find("tarnd: log file /proc/none/a.log: No such file or directory"), std::string::npos)
        << process->Err();
}

} // namespace
