// Peers that stall, flood or talk nonsense: each is cut off with a reason that is counted, and delays nobody else.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/agent.h"
#include "tarn_sysdiag/types/tarnd.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <map>

#include "host/osal/accounting.h"
#include "host/osal/log.h"
#include "host/runtime/encode.h"
#include "host/runtime/status.h"
#include "peer.h"
#include "served_test.h"
#include "tarn_sysdiag/client/agent.h"

namespace {

using namespace std::chrono_literals;
using peer::OnlineRequest;
using peer::RawPeer;
using served::kTarnd;

class LimitsTest : public served::ServerTest {
protected:
    ~LimitsTest() override { go_ = true; }

    void Serve(const host::Limits &limits, unsigned workers = 2) {
        MakeServer({.workers = workers, .limits = limits});
        server_->Start();
    }

    RawPeer NewPeer() const { return RawPeer(host::Directory(dir_.Path()).Socket(kTarnd, 0)); }

    // Whether there is room for another connection.
    bool AnotherIsServed() const {
        const RawPeer another = NewPeer();
        another.TrySend(OnlineRequest(1)); // it may be refused before
        const auto frames = another.Read(1);
        return frames.size() == 1 && frames[0].header.kind == host::FrameKind::kReply;
    }

    // Connects by the first call, so it is not refused later.
    uint64_t Refused(const std::string &name) {
        host::ServerStatus status;
        const host::CallOutcome outcome = host::AskStatus(client_, kTarnd, 0, status, 10s);
        EXPECT_TRUE(outcome.Ok()) << outcome.text;
        for (const host::NamedValue &value : status.refused) {
            if (value.name == name) {
                return value.value;
            }
        }
        ADD_FAILURE() << name;
        return 0;
    }

    void ExpectRefused(const std::string &name, uint64_t times = 1) {
        EXPECT_TRUE(kit::Eventually([&] { return Refused(name) == times; })) << name << " is " << Refused(name);
    }

    void ExpectOthersServed() {
        const Tarn_sys_diag_PidIsOnlineInput input{7};
        const host::CallOutcome outcome = client_.Call(
            kTarnd, 0, "PidIsOnline", velto::kTypeHash<Tarn_sys_diag_PidIsOnlineInput>, kit::Encode<Unit>(input), 5s);
        EXPECT_TRUE(outcome.Ok()) << outcome.text;
    }

    static void ExpectError(const std::vector<host::Frame> &frames, uint32_t errCode, const std::string &text) {
        ASSERT_EQ(frames.size(), 1U);
        EXPECT_EQ(frames[0].header.kind, host::FrameKind::kError);
        EXPECT_EQ(frames[0].header.errCode, errCode);
        EXPECT_EQ(host::ErrorText(frames[0].payload), text);
    }

    // Requests of this method run until the test ends or says so.
    void Block(const std::string &method) {
        served::On(method, [this](const void *, void *) {
            ++blocked_;
            EXPECT_TRUE(kit::Eventually([&] { return go_.load(); }));
            return 3U;
        });
    }

    static std::vector<uint8_t> TidsRequest(uint64_t id) {
        host::FrameHeader header;
        header.id = id;
        header.typeHash = velto::kTypeHash<Tarn_sys_diag_Pid>;
        header.deadlineMs = 10000;
        strcpy(header.service, kTarnd);
        strcpy(header.method, "GetAllTidsByPid");
        return host::MakeFrame(header, kit::Encode<Unit>(Tarn_sys_diag_Pid{1}));
    }

    // Replies of so many bytes, and a few more.
    static void AnswerTids(size_t bytes) {
        served::On("GetAllTidsByPid", [bytes](const void *, void *replyCtx) {
            std::vector<uint32_t> tids(bytes / 4);
            Tarn_sys_diag_Tids reply{static_cast<uint32_t>(tids.size()), tids.data()};
            return TarnHost_Reply(replyCtx, &reply);
        });
    }

    // Lets so much time pass by the server's clock, again and again: what a peer has sent is read at a moment that it
    // does not know.
    void LetPassUntilRefused(std::chrono::nanoseconds time, const std::string &name) {
        EXPECT_TRUE(kit::Eventually([&] {
            LetPass(time);
            return Refused(name) >= 1;
        })) << name
            << " is " << Refused(name);
    }

    void LetPass(std::chrono::nanoseconds time) {
        clocks_.Advance(time);
        server_->RunDue();
    }

    std::atomic<int> blocked_ = 0;
    std::atomic<bool> go_ = false;
};

// --- Connections

TEST_F(LimitsTest, ConnectionsInAll) {
    Serve({.connections = 3});
    ExpectOthersServed();
    {
        const RawPeer first = NewPeer(), second = NewPeer();
        ExpectError(NewPeer().Read(), EBUSY, "connection refused: the server has 3 connections already");
        ExpectRefused("connections");
        ExpectOthersServed();
    }
    EXPECT_TRUE(kit::Eventually([&] { return AnotherIsServed(); })) << "there is room again";
}

TEST_F(LimitsTest, TheCallerIsToldWhyItHasNoConnection) {
    Serve({.connections = 1});
    const RawPeer first = NewPeer();
    first.Send(OnlineRequest(1));
    EXPECT_EQ(first.Read(1).size(), 1U);
    const host::CallOutcome outcome = client_.Call(kTarnd, 0, "PidIsOnline", 0, {}, 5s);
    EXPECT_EQ(outcome.errCode, uint32_t{EBUSY});
    EXPECT_EQ(outcome.text, "connection refused: the server has 1 connections already");
}

TEST_F(LimitsTest, IdleConnections) {
    Block("GetAllTidsByPid");
    Serve({});
    const RawPeer busy = NewPeer(), idle = NewPeer();
    busy.Send(TidsRequest(1));
    EXPECT_TRUE(kit::Eventually([&] { return blocked_ == 1; }));
    idle.Send(OnlineRequest(1));
    EXPECT_EQ(idle.Read(1).size(), 1U);
    EXPECT_TRUE(kit::Eventually([&] { // its request ends at a moment that it does not know
        LetPass(host::Limits().idleTime + 1s);
        return idle.HasEnded();
    }));
    EXPECT_GE(Refused("idle"), 1U);
    go_ = true;
    EXPECT_EQ(busy.Read(1).size(), 1U) << "a connection that waits for an answer is not idle";
    for (int i = 0; i < 3; ++i) {
        LetPass(host::Limits().idleTime + 1s);
        ExpectOthersServed(); // the client connects anew
    }
}

TEST_F(LimitsTest, TimesAreKeptToAQuarter) {
    Serve({.idleTime = 200ms});
    const RawPeer idle = NewPeer();
    idle.Send(OnlineRequest(1));
    EXPECT_EQ(idle.Read(1).size(), 1U);
    EXPECT_TRUE(kit::Eventually([&] { // its request has ended
        host::ServerHealth health;
        EXPECT_TRUE(host::AskHealth(client_, kTarnd, 0, health, 10s).Ok());
        return health.requests == 1;
    }));
    client_.Shutdown();
    LetPass(200ms);
    LetPass(50ms);
    EXPECT_TRUE(idle.Read().empty());
    EXPECT_GE(Refused("idle"), 1U);
}

// --- Frames

TEST_F(LimitsTest, SilentInTheMiddleOfAFrame) {
    Serve({.frameTime = 200ms});
    const RawPeer peer = NewPeer();
    const std::vector<uint8_t> request = OnlineRequest(1);
    peer.Send(std::span(request).first(50));
    ExpectOthersServed();
    LetPassUntilRefused(1s, "silent");
    ExpectError(peer.Read(), ETIMEDOUT, "connection refused: a frame not completed within 200 ms");
}

TEST_F(LimitsTest, SilentInTheMiddleOfASecondFrame) {
    Serve({.frameTime = 200ms});
    const RawPeer peer = NewPeer();
    std::vector<uint8_t> bytes = OnlineRequest(1);
    const std::vector<uint8_t> second = OnlineRequest(2);
    bytes.insert(bytes.end(), second.begin(), second.begin() + 10);
    peer.Send(bytes);
    EXPECT_EQ(peer.Read(1).size(), 1U);
    LetPassUntilRefused(1s, "silent");
    EXPECT_EQ(peer.Read().size(), 1U) << "why it was cut off";
}

TEST_F(LimitsTest, GarbageAndOversizeAreCounted) {
    Serve({.messageBytes = 1000});
    const uint8_t garbage[] = "GET / HTTP/1.1";
    const RawPeer talker = NewPeer();
    talker.Send(garbage);
    EXPECT_EQ(talker.Read().size(), 1U);
    const RawPeer large = NewPeer();
    std::vector<uint8_t> header = OnlineRequest(1);
    header[34] = 1; // 64 KiB more
    large.Send(header);
    ExpectError(large.Read(), EMSGSIZE, "connection refused: message of 65554 bytes, expected at most 1000");
    ExpectRefused("garbage");
    ExpectRefused("message_size");
}

// --- Replies

TEST_F(LimitsTest, PeerThatDoesNotTakeItsReply) {
    AnswerTids(4 << 20);
    Serve({.writeTime = 300ms});
    const RawPeer peer = NewPeer();
    peer.Send(TidsRequest(1));
    ExpectOthersServed();
    LetPassUntilRefused(1s, "slow_reader");
    ExpectOthersServed();
    host::ServerHealth health;
    EXPECT_TRUE(kit::Eventually([&] {
        EXPECT_TRUE(host::AskHealth(client_, kTarnd, 0, health, 10s).Ok());
        return health.connections == 1;
    }));
}

TEST_F(LimitsTest, PeerThatTakesItsReplySlowlyButInTime) {
    AnswerTids(2 << 20);
    Serve({.writeTime = 10s});
    const RawPeer peer = NewPeer();
    peer.Send(TidsRequest(1));
    EXPECT_TRUE(kit::Eventually([] { return served::Freed("GetAllTidsByPid") == 1; }));
    LetPass(10s);
    const auto frames = peer.Read(1);
    ASSERT_EQ(frames.size(), 1U);
    EXPECT_EQ(frames[0].header.kind, host::FrameKind::kReply);
    EXPECT_GE(frames[0].payload.size(), size_t{2} << 20);
}

TEST_F(LimitsTest, PeerForWhichTooMuchWaits) {
    AnswerTids(100'000);
    Serve({.queuedBytes = 500'000});
    const RawPeer peer = NewPeer();
    for (uint64_t id = 1; id <= 30; ++id) {
        peer.TrySend(TidsRequest(id));
    }
    ExpectOthersServed();
    ExpectRefused("queued_bytes");
    ExpectOthersServed();
}

// --- Requests

TEST_F(LimitsTest, RequestsInFlight) {
    Block("GetAllTidsByPid");
    Serve({.requests = 2});
    const RawPeer first = NewPeer(), second = NewPeer(), third = NewPeer();
    first.Send(TidsRequest(1));
    second.Send(TidsRequest(1));
    EXPECT_TRUE(kit::Eventually([&] { return blocked_ == 2; }));
    third.Send(OnlineRequest(1));
    third.Send(OnlineRequest(2)); // answered though nobody is free to serve
    const auto frames = third.Read(2);
    ASSERT_EQ(frames.size(), 2U);
    EXPECT_EQ(frames[0].header.errCode, uint32_t{EBUSY});
    EXPECT_EQ(host::ErrorText(frames[0].payload),
              "TarnSysdiagTarnd.PidIsOnline: the server has 2 requests in flight, as many as it takes");
    go_ = true;
    EXPECT_EQ(first.Read(1).size(), 1U);
    EXPECT_EQ(second.Read(1).size(), 1U);
    EXPECT_TRUE(kit::Eventually([&] { // a request ends a moment after its answer
        host::ServerHealth health;
        return host::AskHealth(client_, kTarnd, 0, health, 10s).Ok() && health.requests == 1;
    }));
    EXPECT_GE(Refused("requests"), 2U);
}

TEST_F(LimitsTest, ACallerThatGoesIsSeenWhileEveryWorkerIsBusy) {
    std::atomic<int> ended = 0;
    served::On("GetAllTidsByPid", [&](const void *, void *replyCtx) {
        ++blocked_;
        EXPECT_TRUE(kit::Eventually([&] { return TarnHost_Cancelled(replyCtx) == ECANCELED; }));
        ++ended;
        return 3U;
    });
    Serve({}, 1);
    {
        const RawPeer peer = NewPeer();
        peer.Send(TidsRequest(1));
        EXPECT_TRUE(kit::Eventually([&] { return blocked_ == 1; }));
    }
    EXPECT_TRUE(kit::Eventually([&] { return ended == 1; }));
    ExpectOthersServed();
}

// --- Memory

TEST_F(LimitsTest, MemoryThatDecodingAReplyMayTake) {
    Serve({});
    served::On("DBGCmdExecResultGet", [](const void *, void *replyCtx) {
        std::string text(5000, 'x');
        Tarn_sys_diag_DiagResult reply{0, 42, text.data()};
        return TarnHost_Reply(replyCtx, &reply);
    });
    const auto call = [&](uint32_t decodedBytes) {
        host::Client::Default().Configure({.runDir = dir_.Path(), .limits = {.decodedBytes = decodedBytes}});
        const Tarn_sys_diag_DbgCmdResultGetInput input{};
        Tarn_sys_diag_DiagResult reply{};
        const IdlCallResult result = TarnSysdiagAgent_DBGCmdExecResultGet(&input, &reply, nullptr);
        IdlCodecTable codec{};
        TarnSysdiagAgent_DBGCmdExecResultGetSetIdl(&codec);
        codec.pfnFreeUnpacked(&reply);
        return result.uiErrCode;
    };
    EXPECT_EQ(call(5000), uint32_t{EBADMSG});
    EXPECT_EQ(call(6000), 0U) << TarnHost_LastError();
}

TEST_F(LimitsTest, MemoryThatDecodingARequestMayTake) {
    Serve({.decodedBytes = 100});
    std::string name(200, 'x');
    const Tarn_sys_diag_GetTaskInfoInput input{1, 2, name.data(), 3, 4};
    const auto answer = kit::Call<Unit, Tarn_sys_diag_GetTaskInfoResult>(client_, kTarnd, 0, "GetTaskInfo", input);
    EXPECT_EQ(answer.Status(), 12U);
}

// A ProcPtRecodResult whose records are all one table on the wire, with one text.
std::vector<uint8_t> SharedRecord(uint32_t recordNum, uint32_t textLength) {
    std::vector<uint8_t> message;
    const auto put = [&](auto... values) {
        (message.insert(message.end(), reinterpret_cast<const uint8_t *>(&values),
                        reinterpret_cast<const uint8_t *>(&values) + sizeof values),
         ...);
    };
    constexpr uint16_t kSlots = 4, kOwnerSlots = 10; // the last of each is the one that is there
    constexpr uint16_t kVtable = 4 + 2 * kSlots, kOwnerVtable = 4 + 2 * kOwnerSlots;
    put(uint32_t{4 + kVtable}, kVtable, uint16_t{8}, std::array<uint16_t, kSlots - 1>{}, uint16_t{4});
    put(uint32_t{kVtable}, uint32_t{4}, recordNum);
    const auto table = static_cast<uint32_t>(message.size()) + 4 * recordNum + kOwnerVtable;
    for (uint32_t i = 0; i < recordNum; ++i) {
        put(table - static_cast<uint32_t>(message.size()));
    }
    put(kOwnerVtable, uint16_t{8}, std::array<uint16_t, kOwnerSlots - 1>{}, uint16_t{4});
    put(uint32_t{kOwnerVtable}, uint32_t{4}, textLength);
    message.insert(message.end(), textLength, 'x');
    return message;
}

// Whether the message is decoded, and what is logged then.
bool DecodesWithin(uint32_t memory, const std::vector<uint8_t> &message, std::vector<std::string> &logged) {
    host::SetLogHook([&](const host::LogRecord &one) { logged.push_back(one.text); });
    IdlCodecTable codec{};
    TarnSysdiagAgent_GetProcPartitionMemHandleRecodSetIdl(&codec);
    Tarn_sys_diag_ProcPtRecodResult result{};
    const bool decoded = host::DecodeWithin(memory, codec, message.data(), message.size(), &result) != nullptr;
    EXPECT_EQ(host::MemoryTotal().liveBlocks > 0, decoded) << "a refusal leaves nothing";
    codec.pfnFreeUnpacked(&result);
    host::SetLogHook(nullptr);
    return decoded;
}

TEST(DecodedBytes, OfRecordsThatShareATextAreCountedForEach) {
    const std::vector<uint8_t> message = SharedRecord(8000, 33400);
    ASSERT_LE(message.size(), 65536U);
    std::vector<std::string> logged;
    EXPECT_FALSE(DecodesWithin(16 << 20, message, logged));
    EXPECT_LE(host::MemoryTotal().peakBytes, 16U << 20);
    ASSERT_EQ(logged.size(), 1U);
    EXPECT_EQ(logged[0], "[VELTO]:Malloc unpack data failed, size(33401)");
    EXPECT_EQ(host::MemoryTotal().liveBlocks, 0U);
}

TEST(DecodedBytes, OfSmallBlocksAreCountedWithWhatEachTakesBeside) {
    const std::vector<uint8_t> message = SharedRecord(1000, 0);
    constexpr uint32_t kRecords = 1000 * sizeof(Tarn_sys_diag_ProcPtRecod);
    std::vector<std::string> logged;
    EXPECT_FALSE(DecodesWithin(kRecords + 1000 * 8, message, logged));
    EXPECT_EQ(logged.size(), 1U);
    EXPECT_TRUE(DecodesWithin(kRecords + 1000 * 64, message, logged));
    EXPECT_EQ(logged.size(), 1U);
}

// --- Settings

std::string ErrorOf(const std::string &assignment) {
    host::Limits limits;
    try {
        host::SetLimit(limits, assignment);
    } catch (const std::invalid_argument &error) {
        return error.what();
    }
    return "";
}

TEST(LimitSettings, EachIsSetByItsName) {
    host::Limits limits;
    const std::vector<host::LimitInfo> all = host::DescribeLimits(limits);
    for (size_t i = 0; i < all.size(); ++i) {
        host::SetLimit(limits, fmt::format("{}={}", all[i].name, 70 + i));
    }
    for (size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(host::DescribeLimits(limits)[i].value, 70 + i) << all[i].name;
    }
    const auto set = [](const char *assignment) {
        host::Limits one;
        host::SetLimit(one, assignment);
        return one;
    };
    EXPECT_EQ(set("message_bytes=7").messageBytes, 7U);
    EXPECT_EQ(set("decoded_bytes=7").decodedBytes, 7U);
    EXPECT_EQ(set("deadline_ms=7").deadline, 7ms);
    EXPECT_EQ(set("max_deadline_ms=7").maxDeadline, 7ms);
    EXPECT_EQ(set("reply_bytes=7").replyBytes, 7U);
    EXPECT_EQ(set("connections=7").connections, 7U);
    EXPECT_EQ(set("requests=7").requests, 7U);
    EXPECT_EQ(set("received_bytes=7").receivedBytes, 7U);
    EXPECT_EQ(set("connection_requests=7").requestsPerConnection, 7U);
    EXPECT_EQ(set("queued_bytes=7").queuedBytes, 7U);
    EXPECT_EQ(set("write_ms=7").writeTime, 7ms);
    EXPECT_EQ(set("frame_ms=7").frameTime, 7ms);
    EXPECT_EQ(set("idle_ms=7").idleTime, 7ms);
}

TEST(LimitSettings, BadOnesAreRefused) {
    EXPECT_EQ(ErrorOf("connections="), "limit connections: \"\", expected a number from 1 to 2147483647");
    EXPECT_EQ(ErrorOf("connections"), "limit connections: \"\", expected a number from 1 to 2147483647");
    EXPECT_EQ(ErrorOf("connections=0"), "limit connections: \"0\", expected a number from 1 to 2147483647");
    EXPECT_EQ(ErrorOf("connections=1k"), "limit connections: \"1k\", expected a number from 1 to 2147483647");
    EXPECT_EQ(ErrorOf("connections=4294967295"),
              "limit connections: \"4294967295\", expected a number from 1 to 2147483647");
    EXPECT_EQ(ErrorOf("speed=1").find("limit \"speed\", expected NAME=VALUE with one of message_bytes, "), 0U);
}

} // namespace
