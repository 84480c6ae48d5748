// Who may call what: the policy's text, the groups of methods, and callers of another user.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <mutex>

#include <algorithm>
#include <numeric>
#include <sstream>

#include "host/osal/log.h"
#include "host/runtime/catalogue.h"
#include "host/runtime/peer_log.h"
#include "host/runtime/policy.h"
#include "host/runtime/server.h"
#include "host/runtime/status.h"
#include "kit.h"
#include "peer.h"
#include "served.h"
#include "tarn_sysdiag/host/reply.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace {

using namespace std::chrono_literals;
using host::Group;
using host::Peer;
using host::Policy;

constexpr uid_t kNobody = 65534;

Policy Parse(const std::string &text) {
    std::istringstream in(text);
    return Policy::Parse(in, "policy");
}

std::string ErrorOf(const std::string &text) {
    try {
        Parse(text);
    } catch (const std::runtime_error &error) {
        return error.what();
    }
    return "";
}

// --- Groups

TEST(Groups, EveryMethodThatChangesOrShowsMoreThanFiguresIsNoReading) {
    for (const host::MethodInfo &method : host::Catalogue()) {
        const bool harmless = method.method.find("Set") != 0 && method.method.find("Dump") != 0 &&
                              method.method.find("Reset") != 0 && method.method.find("Zip") != 0 &&
                              method.method.find("Update") != 0 && method.method.find("Clear") != 0 &&
                              method.method.find("DBGCmd") != 0 && method.method.find("CallStack") == std::string::npos;
        EXPECT_TRUE(harmless || host::GroupOf(method.method) != Group::kReading) << method.method;
    }
    EXPECT_EQ(host::GroupOf("PidIsOnline"), Group::kReading);
    EXPECT_EQ(host::GroupOf("DumpOsProcMemValue"), Group::kMemory);
    EXPECT_EQ(host::GroupOf("SetTimezone"), Group::kSettings);
    EXPECT_EQ(host::GroupOf("ZipLogFile"), Group::kCommands);
    EXPECT_EQ(host::GroupOf("AgentRegInfo"), Group::kAgents);
    EXPECT_EQ(host::GroupOf("WhatNobodyKnows"), Group::kCommands);
}

TEST(Groups, AreThoseOfWhatAMethodReaches) {
    for (const char *const shown : // a process's memory, or names and paths that the kernel shows its user alone
         {"AppMemInfo", "TarnGetAppMemUnitInfo", "GetOsProcessMemInfo", "GetSysMemStatisFile", "GetSysOsMemFileList",
          "TarnGetDimMeasRstByTarnd", "TarnAgentGetTimerInfo", "TarnGetTimerInfoTarnd"}) {
        EXPECT_EQ(host::GroupOf(shown), Group::kMemory) << shown;
    }
    EXPECT_EQ(host::GroupOf("DetectTarndServerOnline"), Group::kReading);
    EXPECT_EQ(host::GroupOf("OvloadCpuSwitchState"), Group::kReading);
}

TEST(Groups, NamesAreFoundAgain) {
    for (const Group group : host::kGroups) {
        EXPECT_EQ(host::GroupNamed(host::NameOf(group)), group);
    }
    EXPECT_EQ(host::GroupNamed("all"), std::nullopt);
}

// --- The policy

TEST(PolicyFile, WithoutLinesAllowsTheSameUserAndRoot) {
    const Policy policy = Parse("# nothing\n\n");
    for (const char *const method :
         {"PidIsOnline", "DumpOsProcMemValue", "SetTimezone", "ZipLogFile", "AgentRegInfo"}) {
        EXPECT_TRUE(policy.Allows({.uid = 0}, method));
        EXPECT_TRUE(policy.Allows({.uid = geteuid()}, method));
        EXPECT_FALSE(policy.Allows({.uid = kNobody, .gid = 0}, method));
        EXPECT_EQ(policy.Text(method), "same-user user:root");
    }
    EXPECT_FALSE(policy.AllowsOthers());
}

TEST(PolicyFile, GroupsAndMethodsOfTheirOwn) {
    const Policy policy = Parse("reading   anyone        # figures\n"
                                "memory\tuser:1000   group:2000\n"
                                "settings  nobody\n"
                                "SetTimezone  user:1001\n");
    EXPECT_TRUE(policy.AllowsOthers());
    EXPECT_TRUE(policy.Allows({.uid = kNobody}, "PidIsOnline"));
    EXPECT_TRUE(policy.Allows({.uid = 1000}, "DumpOsProcMemValue"));
    EXPECT_TRUE(policy.Allows({.uid = 5, .gid = 2000}, "DumpOsProcMemValue"));
    EXPECT_TRUE(policy.Allows({.uid = 5, .gid = 6, .groups = {7, 2000}}, "DumpOsProcMemValue"));
    EXPECT_FALSE(policy.Allows({.uid = 2000, .gid = 1000, .groups = {1000}}, "DumpOsProcMemValue"));
    EXPECT_FALSE(policy.Allows({.uid = 0}, "DumpOsProcMemValue")) << "root is not named";
    EXPECT_FALSE(policy.Allows({.uid = 0}, "SetDst"));
    EXPECT_FALSE(policy.Allows({.uid = 0}, "SetTimezone"));
    EXPECT_TRUE(policy.Allows({.uid = 1001}, "SetTimezone"));
    EXPECT_TRUE(policy.Allows({.uid = 0}, "ZipLogFile")) << "a group without a line";
    EXPECT_EQ(policy.Text("SetTimezone"), "user:1001");
}

TEST(PolicyFile, TheMemoryOfOthersHasALineOfItsOwn) {
    const Policy narrow = Parse("memory anyone\n");
    EXPECT_TRUE(narrow.AllowsMemoryOfOthers({.uid = 0}));
    EXPECT_TRUE(narrow.AllowsMemoryOfOthers({.uid = geteuid()}));
    EXPECT_FALSE(narrow.AllowsMemoryOfOthers({.uid = kNobody}));
    const Policy wide = Parse("memory anyone\nmemory-of-others user:root group:2000\n");
    EXPECT_TRUE(wide.AllowsMemoryOfOthers({.uid = kNobody, .groups = {2000}}));
    EXPECT_FALSE(wide.AllowsMemoryOfOthers({.uid = kNobody}));
    EXPECT_EQ(ErrorOf("memory-of-others anyone\nmemory-of-others nobody"),
              "policy:2: a second line for \"memory-of-others\", expected one");
    EXPECT_EQ(ErrorOf("memory-of-others"),
              "policy:1: \"memory-of-others\" without who may, expected e.g. same-user, or nobody");
    EXPECT_EQ(ErrorOf("memory-of-others all"),
              "policy:1: \"all\", expected anyone, nobody, same-user, user:NAME or group:NAME");
}

TEST(PolicyFile, NamesOfTheSystem) {
    EXPECT_TRUE(Parse("reading user:root").Allows({.uid = 0}, "PidIsOnline"));
    EXPECT_TRUE(Parse("reading group:root").Allows({.uid = 9, .gid = 0}, "PidIsOnline"));
    EXPECT_FALSE(Parse("reading group:root").Allows({.uid = 0, .gid = 9}, "PidIsOnline"));
}

TEST(PolicyFile, MistakesAreToldWithTheirLine) {
    EXPECT_EQ(ErrorOf("# one\nwriting anyone"),
              "policy:2: \"writing\", expected reading, memory, settings, commands, agents, memory-of-others, or a "
              "method's name");
    EXPECT_EQ(ErrorOf("reading anyone\nreading nobody"), "policy:2: a second line for \"reading\", expected one");
    EXPECT_EQ(ErrorOf("\n\nreading # anyone"),
              "policy:3: \"reading\" without who may, expected e.g. same-user, or nobody");
    EXPECT_EQ(ErrorOf("reading root"),
              "policy:1: \"root\", expected anyone, nobody, same-user, user:NAME or group:NAME");
    EXPECT_EQ(ErrorOf("reading user:no-such-user"),
              "policy:1: no user \"no-such-user\", expected a user's name or number");
    EXPECT_EQ(ErrorOf("reading user:"), "policy:1: no user \"\", expected a user's name or number");
    EXPECT_EQ(ErrorOf("reading user:-1"), "policy:1: no user \"-1\", expected a user's name or number");
    EXPECT_EQ(ErrorOf("reading group:no-such-group"),
              "policy:1: no group \"no-such-group\", expected a group's name or number");
    EXPECT_EQ(ErrorOf("reading user:root anyone"), "policy:1: \"anyone\" among others, expected it alone");
    EXPECT_EQ(ErrorOf("Reading anyone").find("policy:1: \"Reading\""), 0U);
}

TEST(PolicyFile, OfADirectoryOrNothingIsRefused) {
    const kit::TempDir dir;
    try {
        Policy::Load(dir.Path() / "none");
        ADD_FAILURE();
    } catch (const std::runtime_error &error) {
        EXPECT_EQ(error.what(), (dir.Path() / "none").string() + ": No such file or directory, expected a policy file");
    }
    EXPECT_THROW(Policy::Load(dir.Path()), std::runtime_error);
    std::ofstream(dir.Path() / "policy") << "memory anyone\n";
    EXPECT_TRUE(Policy::Load(dir.Path() / "policy").Allows({.uid = kNobody}, "DumpOsProcMemValue"));
}

// --- Callers

class AccessTest : public testing::Test {
protected:
    AccessTest() {
        std::filesystem::permissions(dir_.Path(), std::filesystem::perms(0755));
        host::Log().set_level(host::LogLevel::kCritical);
        served::On("PidIsOnline", [](const void *, void *replyCtx) {
            Tarn_sys_diag_PidIsOnlineOuput online{1, 1};
            return TarnHost_Reply(replyCtx, &online);
        });
    }
    ~AccessTest() override {
        server_.reset();
        served::Reset();
        host::Log().set_level(host::LogLevel::kInfo);
    }

    void Serve(const std::string &policy) {
        server_.reset();
        server_ = std::make_unique<host::Server>(host::ServerOptions{.runDir = dir_.Path(), .policy = Parse(policy)});
        server_->AddService(__module_spec_TarnSysdiagTarnd);
        server_->Start();
    }

    // What another user, with these further groups, is answered. Nothing when it can't even connect.
    std::vector<host::Frame> AskAs(uid_t user, std::vector<gid_t> groups, const std::vector<uint8_t> &request) {
        const std::filesystem::path path = host::Directory(dir_.Path()).Socket("TarnSysdiagTarnd", 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.string().copy(address.sun_path, sizeof address.sun_path - 1);
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        host::Descriptor in(ends[0]), out(ends[1]);
        const pid_t child = fork();
        if (child == 0) { // system calls only: other threads may hold any lock
            const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
            uint8_t buffer[4096];
            ssize_t count = 0;
            if (setgroups(groups.size(), groups.data()) == 0 && setgid(user) == 0 && setuid(user) == 0 &&
                connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
                send(fd, request.data(), request.size(), MSG_NOSIGNAL) > 0 &&
                (count = recv(fd, buffer, sizeof buffer, 0)) > 0) {
                count = write(out.Fd(), buffer, static_cast<size_t>(count));
            }
            _exit(0);
        }
        out = host::Descriptor();
        const auto frames = peer::RawPeer(in.Release()).Read();
        waitpid(child, nullptr, 0);
        return frames;
    }

    kit::TempDir dir_;
    std::unique_ptr<host::Server> server_;
};

// Over a socket pair: one descriptor.
struct DescriptorMessage {
    DescriptorMessage() {
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
    }
    char byte = 0;
    iovec part{&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
};

bool SendDescriptor(int over, int fd) {
    DescriptorMessage out;
    cmsghdr *const header = CMSG_FIRSTHDR(&out.message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof fd);
    memcpy(CMSG_DATA(header), &fd, sizeof fd);
    return sendmsg(over, &out.message, 0) == 1;
}

int ReceiveDescriptor(int over) {
    DescriptorMessage in;
    int fd = -1;
    EXPECT_EQ(recvmsg(over, &in.message, 0), 1);
    memcpy(&fd, CMSG_DATA(CMSG_FIRSTHDR(&in.message)), sizeof fd);
    return fd;
}

size_t CountOf(const std::string &text, const std::string &part) {
    size_t count = 0;
    for (size_t at = 0; (at = text.find(part, at)) != text.npos; ++at) {
        ++count;
    }
    return count;
}

TEST_F(AccessTest, AnotherUserIsDeniedWhatThePolicyDoesNotGive) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can be another user";
    }
    Serve("commands anyone");
    const auto frames = AskAs(kNobody, {}, peer::OnlineRequest(1));
    ASSERT_EQ(frames.size(), 1U);
    EXPECT_EQ(frames[0].header.errCode, uint32_t{EACCES});
    EXPECT_EQ(host::ErrorText(frames[0].payload),
              "TarnSysdiagTarnd.PidIsOnline: denied to user 65534; the policy has \"same-user user:root\" (group "
              "reading)");
    EXPECT_EQ(served::Freed("PidIsOnline"), 0U);

    host::Client client({.runDir = dir_.Path()});
    host::ServerStatus status;
    ASSERT_TRUE(host::AskStatus(client, "TarnSysdiagTarnd", 0, status, 10s).Ok());
    for (const host::NamedValue &value : status.refused) {
        EXPECT_EQ(value.value, value.name == "denied" ? 1U : 0U) << value.name;
    }
}

TEST_F(AccessTest, ADenialIsLogged) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can be another user";
    }
    host::Log().set_level(host::LogLevel::kWarning);
    Serve("commands anyone");
    testing::internal::CaptureStderr();
    constexpr uint64_t kTimes = 20;
    for (uint64_t i = 0; i != kTimes; ++i) {
        AskAs(kNobody, {}, peer::OnlineRequest(i));
    }
    host::Client client({.runDir = dir_.Path()});
    host::ServerStatus status;
    ASSERT_TRUE(host::AskStatus(client, "TarnSysdiagTarnd", 0, status, 10s).Ok());
    const auto denied = std::ranges::find(status.refused, "denied", &host::NamedValue::name);
    EXPECT_EQ(denied->value, kTimes);
    server_.reset();
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(CountOf(log, "TarnSysdiagTarnd.PidIsOnline: denied to process "), 1U) << log;
    EXPECT_EQ(CountOf(log, "user 65534: calls denied, and 19 more"), 1U) << log;
}

class PeerLogTest : public testing::Test {
protected:
    PeerLogTest() {
        host::Log().set_level(host::LogLevel::kWarning);
        testing::internal::CaptureStderr();
    }

    // To be called once.
    static std::vector<std::string> Lines() {
        std::vector<std::string> lines;
        std::istringstream written(testing::internal::GetCapturedStderr());
        for (std::string line; std::getline(written, line);) {
            lines.push_back(line.substr(line.find("] ") + 2));
        }
        return lines;
    }

    static constexpr host::PeerLog::Clock::time_point kStart{1h};
    static host::PeerLog::Clock::time_point After(int intervals) {
        return kStart + intervals * host::PeerLog::kInterval;
    }

    host::PeerLog log_;
};

TEST_F(PeerLogTest, WritesTheFirstOfAUserOnATopicAndThenTheirNumberOnceAnInterval) {
    log_.Warn(1, "a", "the first a", kStart);
    log_.Warn(1, "a", "the second a", kStart);
    log_.Warn(1, "b", "the first b", kStart);
    log_.Warn(2, "a", "another user's a", kStart);
    log_.Warn(1, "a", "the third a", kStart + 1s);
    log_.Summarize(After(1) - 1ns);
    log_.Summarize(After(1));
    log_.Warn(1, "a", "the fourth a", After(1));
    log_.Summarize(After(2) - 1ns);
    log_.Summarize(After(2));
    log_.Summarize(After(3));
    log_.Warn(1, "a", "another first a", After(3));
    log_.Flush();
    EXPECT_EQ(Lines(), (std::vector<std::string>{"the first a", "the first b", "another user's a",
                                                 "user 1: a, and 2 more", "user 1: a, and 1 more", "another first a"}));
}

TEST_F(PeerLogTest, HasSoManyRecordsOfTheCallsOfAUserInAnInterval) {
    constexpr uint64_t kShare = host::PeerLog::kCallRecords;
    for (int interval = 0; interval < 2; ++interval) {
        for (const uid_t user : {1U, 2U}) {
            uint64_t written = 0;
            for (uint64_t i = 0; i < 10'000; ++i) {
                written += log_.MayWrite(user, After(2 * interval)) ? 1 : 0;
            }
            EXPECT_EQ(written, kShare);
        }
        log_.Summarize(After(2 * interval + 1)); // tells, and counts on
        log_.Summarize(After(2 * interval + 2)); // nothing since: the next is a first again
    }
    const std::string first = "user 1: records of calls, and 9940 more";
    const std::string second = "user 2: records of calls, and 9940 more";
    EXPECT_EQ(Lines(), (std::vector<std::string>{first, second, first, second}));
}

// As a request's thread does, which may be the one that writes them.
TEST_F(PeerLogTest, WritesWhereTheLogAsksIt) {
    struct Share final : host::LogGate {
        explicit Share(host::PeerLog &log) : log(log) {}
        bool Passes() override { return log.MayWrite(1, kStart); }
        host::PeerLog &log;
    } share(log_);
    log_.Warn(1, "a", "the first a", kStart);
    log_.Warn(1, "a", "the second a", kStart);
    log_.Summarize(After(1));
    EXPECT_EQ(Lines(), (std::vector<std::string>{"the first a", "user 1: a, and 1 more"}));
}

TEST_F(PeerLogTest, IsBounded) {
    for (uid_t user = 0; user != 2 * host::PeerLog::kMaxTopics; ++user) {
        log_.Warn(user, "a", "a record", {});
    }
    log_.Flush();
    const auto lines = Lines();
    EXPECT_EQ(std::ranges::count(lines, "a record"), host::PeerLog::kMaxTopics + 1) << "and one of all others";
    EXPECT_EQ(lines.back(), "users: more of other users, and 1023 more");
}

TEST_F(AccessTest, AnotherUserMayByItsNumberOrAGroup) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can be another user";
    }
    const auto kind = [&](const std::vector<gid_t> &groups) {
        const auto frames = AskAs(kNobody, groups, peer::OnlineRequest(1));
        return frames.size() == 1 ? frames[0].header.kind : host::FrameKind::kCancel;
    };
    Serve("reading user:65534");
    EXPECT_EQ(kind({}), host::FrameKind::kReply);
    Serve("reading group:4321");
    EXPECT_EQ(kind({}), host::FrameKind::kError);
    EXPECT_EQ(kind({4321}), host::FrameKind::kReply);
    std::vector<gid_t> many(100);
    std::iota(many.begin(), many.end(), gid_t{4300});
    EXPECT_EQ(kind(many), host::FrameKind::kReply);
    Serve("PidIsOnline anyone");
    EXPECT_EQ(kind({}), host::FrameKind::kReply);
}

TEST_F(AccessTest, AnotherUserCannotConnectWhereThePolicyGivesNobodyElseAnything) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can be another user";
    }
    Serve("");
    EXPECT_TRUE(AskAs(kNobody, {}, peer::OnlineRequest(1)).empty());
}

// What a method is told of its caller, on the thread that it runs on.
class PeerTold {
public:
    PeerTold() {
        served::On("PidIsOnline", [this](const void *, void *replyCtx) {
            {
                const std::lock_guard lock(mutex_);
                EXPECT_EQ(TarnHost_PeerOf(replyCtx, &peer_), 0);
                lives_ = TarnHost_PeerLives(replyCtx);
            }
            Tarn_sys_diag_PidIsOnlineOuput online{1, 1};
            return TarnHost_Reply(replyCtx, &online);
        });
    }
    TarnHost_Peer Peer() const {
        const std::lock_guard lock(mutex_);
        return peer_;
    }
    uint32_t Lives() const {
        const std::lock_guard lock(mutex_);
        return lives_;
    }

private:
    mutable std::mutex mutex_;
    TarnHost_Peer peer_{};
    uint32_t lives_ = 2;
};

TEST_F(AccessTest, AMethodIsToldWhoCalls) {
    const PeerTold told;
    Serve("memory-of-others nobody");
    const peer::RawPeer own(host::Directory(dir_.Path()).Socket("TarnSysdiagTarnd", 0));
    own.Send(peer::OnlineRequest(1));
    EXPECT_EQ(own.Read(1).size(), 1U);
    EXPECT_EQ(told.Peer().uiPid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(told.Peer().uiUid, getuid());
    EXPECT_EQ(told.Peer().uiGid, getgid());
    EXPECT_EQ(told.Peer().ucMemoryOfOthers, 0);
    EXPECT_EQ(told.Lives(), 1U);
    TarnHost_Peer none;
    EXPECT_EQ(TarnHost_PeerOf(nullptr, &none), uint32_t{EINVAL}) << "no method runs here";
    EXPECT_EQ(TarnHost_PeerLives(nullptr), 0U);
    if (geteuid() == 0) {
        Serve("reading anyone\nmemory-of-others group:4321");
        AskAs(kNobody, {4321}, peer::OnlineRequest(1));
        EXPECT_EQ(told.Peer().uiUid, kNobody);
        EXPECT_EQ(told.Peer().ucMemoryOfOthers, 1);
    }
}

TEST_F(AccessTest, TheProcessThatConnectedMayHaveEnded) {
    const PeerTold told;
    Serve("");
    const std::filesystem::path path = host::Directory(dir_.Path()).Socket("TarnSysdiagTarnd", 0);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const pid_t child = fork();
    if (child == 0) { // connects, and leaves the connection behind
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.string().copy(address.sun_path, sizeof address.sun_path - 1);
        _exit(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 && SendDescriptor(ends[1], fd)
                  ? 0
                  : 1);
    }
    const peer::RawPeer inherited(ReceiveDescriptor(ends[0]));
    int status = -1;
    waitpid(child, &status, 0);
    ASSERT_EQ(status, 0);
    inherited.Send(peer::OnlineRequest(1));
    EXPECT_EQ(inherited.Read(1).size(), 1U);
    EXPECT_EQ(told.Peer().uiPid, static_cast<uint32_t>(child));
    EXPECT_EQ(told.Lives(), 0U);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(AccessTest, TheRuntimesOwnServiceIsReading) {
    Serve("reading nobody");
    host::Client client({.runDir = dir_.Path()});
    host::ServerHealth health;
    const host::CallOutcome outcome = host::AskHealth(client, "TarnSysdiagTarnd", 0, health, 10s);
    EXPECT_EQ(outcome.errCode, uint32_t{EACCES});
    EXPECT_NE(outcome.text.find("the policy has \"nobody\" (group reading)"), std::string::npos) << outcome.text;
}

} // namespace
