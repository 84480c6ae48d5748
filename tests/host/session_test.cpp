// A server's sessions: limits, backpressure, answers, deadlines, and callers that give up.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <map>
#include <set>
#include <thread>

#include "session_kit.h"

namespace {

using namespace std::chrono_literals;
using host::FrameKind;
using kit::AnswerOnline;
using kit::Client;
using kit::SessionTest;
using peer::OnlineRequest;
using peer::RawPeer;

// --- Limits in time

TEST_F(SessionTest, AnIdleConnectionIsClosedAfterItsTime) {
    Serve();
    const Client client = Connect();
    clocks_.Advance(1h);
    client.Say(OnlineRequest(1));
    EXPECT_EQ(client.peer.Read(1).size(), 1U);
    clocks_.Advance(host::Limits().idleTime);
    CheckTimes(client);
    EXPECT_FALSE(HasEnded(client));
    clocks_.Advance(1ns);
    CheckTimes(client);
    EXPECT_TRUE(HasEnded(client));
    EXPECT_TRUE(client.peer.Read().empty());
    EXPECT_EQ(Refused(host::Reason::kIdle), 1U);
}

TEST_F(SessionTest, AConnectionThatWaitsForAnAnswerIsNotIdle) {
    Serve();
    void *context = nullptr;
    served::On("PidIsOnline", [&](const void *, void *replyCtx) {
        context = replyCtx;
        return 0U;
    });
    const Client client = Connect();
    client.Say(OnlineRequest(1, 3'600'000));
    clocks_.Advance(host::Limits().idleTime + 1s);
    CheckTimes(client);
    EXPECT_FALSE(HasEnded(client));
    EXPECT_EQ(AnswerOnline(context), 0U);
    CheckTimes(client);
    EXPECT_TRUE(HasEnded(client)) << "its time counts from its request";
}

TEST_F(SessionTest, AFrameIsToBeCompletedInItsTime) {
    Serve({.frameTime = 200ms});
    const Client client = Connect();
    const std::vector<uint8_t> request = OnlineRequest(1);
    for (size_t at = 0; at < 10; ++at) { // a byte now and then gains no time
        client.Say(std::span(request).subspan(at, 1));
        clocks_.Advance(20ms);
        CheckTimes(client);
    }
    EXPECT_FALSE(HasEnded(client));
    clocks_.Advance(1ns);
    CheckTimes(client);
    CheckTimes(client);
    const auto frames = client.peer.Read();
    ASSERT_EQ(frames.size(), 1U);
    EXPECT_EQ(frames[0].header.errCode, uint32_t{ETIMEDOUT});
    EXPECT_EQ(host::ErrorText(frames[0].payload), "connection refused: a frame not completed within 200 ms");
    EXPECT_EQ(Refused(host::Reason::kSilent), 1U);
}

TEST_F(SessionTest, AReplyIsToBeTakenInItsTime) {
    served::On("GetAllTidsByPid", [](const void *, void *replyCtx) {
        std::vector<uint32_t> tids(1 << 20);
        Tarn_sys_diag_Tids reply{static_cast<uint32_t>(tids.size()), tids.data()};
        return TarnHost_Reply(replyCtx, &reply);
    });
    Serve({.writeTime = 300ms, .idleTime = 100ms});
    const Client client = Connect();
    host::FrameHeader header;
    header.typeHash = velto::kTypeHash<Tarn_sys_diag_Pid>;
    strcpy(header.service, "TarnSysdiagTarnd");
    strcpy(header.method, "GetAllTidsByPid");
    client.Say(host::MakeFrame(header, kit::Encode<Unit>(Tarn_sys_diag_Pid{1})));
    clocks_.Advance(300ms);
    CheckTimes(client);
    EXPECT_TRUE(client.session->HasUnsent()) << "and a peer that is to take an answer is not idle";
    clocks_.Advance(1ns);
    CheckTimes(client);
    CheckTimes(client);
    EXPECT_TRUE(HasEnded(client));
    EXPECT_EQ(Refused(host::Reason::kSlowReader), 1U);
    EXPECT_EQ(Refused(host::Reason::kIdle), 0U);
}

// --- Backpressure

TEST_F(SessionTest, SoManyRequestsAreReadAsMayBeInFlight) {
    Serve({.requestsPerConnection = 2});
    std::vector<void *> contexts;
    served::On("PidIsOnline", [&](const void *, void *replyCtx) {
        contexts.push_back(replyCtx);
        return 0U;
    });
    const Client client = Connect();
    client.Say(OnlineRequest(1));
    client.Say(OnlineRequest(2));
    client.Say(OnlineRequest(3));
    EXPECT_EQ(contexts.size(), 2U);
    EXPECT_FALSE(client.peer.HasBeenRead());
    EXPECT_EQ(AnswerOnline(contexts[0]), 0U);
    client.Report(EPOLLIN);
    EXPECT_EQ(contexts.size(), 3U);
    client.Say(OnlineRequest(4));
    EXPECT_EQ(contexts.size(), 3U);
    EXPECT_EQ(AnswerOnline(contexts[1]), 0U);
    EXPECT_EQ(AnswerOnline(contexts[2]), 0U);
    client.Report(EPOLLIN);
    EXPECT_EQ(contexts.size(), 4U);
    EXPECT_EQ(AnswerOnline(contexts[3]), 0U);
    EXPECT_EQ(client.peer.Read(4).size(), 4U);
}

TEST_F(SessionTest, SoManyBytesMayWaitForAPeer) {
    constexpr uint32_t kLimit = 8 << 20;
    Serve({.queuedBytes = kLimit});
    const Client client = Connect();
    EXPECT_TRUE(client.session->Send(std::vector<uint8_t>(kLimit)));
    int inSocket = 0; // so many do not wait
    ASSERT_EQ(ioctl(client.peer.Fd(), FIONREAD, &inSocket), 0);
    EXPECT_TRUE(client.session->Send(std::vector<uint8_t>(static_cast<size_t>(inSocket))));
    EXPECT_EQ(Refused(host::Reason::kQueuedBytes), 0U);
    EXPECT_FALSE(client.session->Send(std::vector<uint8_t>(1)));
    EXPECT_EQ(Refused(host::Reason::kQueuedBytes), 1U);
    EXPECT_TRUE(HasEnded(client));
}

TEST_F(SessionTest, WhatIsNoFrameIsCountedByWhatItIs) {
    Serve({.messageBytes = 10});
    const Client client = Connect();
    client.Say(std::vector<uint8_t>(4));
    EXPECT_EQ(Refused(host::Reason::kGarbage), 1U);
    EXPECT_EQ(Refused(host::Reason::kMessageSize), 0U);
    const Client other = Connect();
    host::FrameHeader header;
    other.Say(host::MakeFrame(header, std::vector<uint8_t>(11)));
    EXPECT_EQ(Refused(host::Reason::kGarbage), 1U);
    EXPECT_EQ(Refused(host::Reason::kMessageSize), 1U);
}

TEST_F(SessionTest, TheServerTakesSoManyRequestsInAll) {
    Serve({.requests = 2});
    std::vector<void *> contexts;
    served::On("PidIsOnline", [&](const void *, void *replyCtx) {
        contexts.push_back(replyCtx);
        return 0U;
    });
    const Client first = Connect(), second = Connect();
    first.Say(OnlineRequest(1));
    second.Say(OnlineRequest(1));
    EXPECT_EQ(contexts.size(), 2U);
    second.Say(OnlineRequest(2));
    const auto frames = second.peer.Read(1);
    EXPECT_EQ(frames.at(0).header.errCode, uint32_t{EBUSY});
    EXPECT_EQ(frames.at(0).header.id, 2U);
    EXPECT_EQ(Refused(host::Reason::kRequests), 1U);
    EXPECT_EQ(AnswerOnline(contexts[0]), 0U);
    second.Say(OnlineRequest(3));
    EXPECT_EQ(contexts.size(), 3U);
}

TEST_F(SessionTest, ARequestWaitsForTheOnewayRequestsBeforeIt) {
    Serve({}, 2);
    const Client client = Connect();
    std::string order;
    std::vector<uint8_t> oneway = OnlineRequest(7);
    oneway[6] = static_cast<uint8_t>(FrameKind::kOneway);
    bool first = true;
    served::On("PidIsOnline", [&](const void *request, void *replyCtx) {
        const uint32_t pid = static_cast<const Tarn_sys_diag_PidIsOnlineInput *>(request)->uiPid;
        if (std::exchange(first, false)) {
            client.Say(OnlineRequest(1));
            EXPECT_EQ(order, "");
        }
        order += std::to_string(pid);
        return AnswerOnline(replyCtx);
    });
    client.Say(oneway);
    EXPECT_EQ(order, "71");
    const auto frames = client.peer.Read(1);
    EXPECT_EQ(frames.at(0).header.id, 1U) << "the other is not answered";
}

// --- Answers

TEST_F(SessionTest, AnAnswerRepeatsTheCallsNumberAndType) {
    Serve();
    const Client client = Connect();
    const uint32_t hash = velto::kTypeHash<Tarn_sys_diag_PidIsOnlineInput>;
    client.Say(OnlineRequest(0x123456789ABC));
    const host::Frame reply = client.peer.Read(1).at(0);
    EXPECT_EQ(reply.header.kind, FrameKind::kReply);
    EXPECT_EQ(reply.header.id, 0x123456789ABCU);
    EXPECT_EQ(reply.header.typeHash, hash);
    EXPECT_EQ(reply.header.status, 0U);
    EXPECT_EQ(reply.header.errCode, 0U);
    served::On("PidIsOnline", [](const void *, void *) {
        TarnHost_Explain("it is out");
        return 3U;
    });
    client.Say(OnlineRequest(0x223456789ABC));
    const host::Frame error = client.peer.Read(1).at(0);
    EXPECT_EQ(error.header.kind, FrameKind::kError);
    EXPECT_EQ(error.header.id, 0x223456789ABCU);
    EXPECT_EQ(error.header.typeHash, hash);
    EXPECT_EQ(error.header.status, 3U);
    EXPECT_EQ(error.header.errCode, 0U);
    EXPECT_EQ(host::ErrorText(error.payload), "TarnSysdiagTarnd.PidIsOnline: status 3 (No such process): it is out");
}

// --- Explanations

constexpr char kReason[] = "begins-at is 1900 ‰, expected 0 to 1000";

// A request of PidIsOnline as its bytes, with another word at 24.
std::vector<uint8_t> RequestThatTakes(uint32_t what, uint64_t id = 1) {
    std::vector<uint8_t> request = OnlineRequest(id);
    request[24] = static_cast<uint8_t>(what);
    return request;
}

std::string_view TextOf(std::span<const uint8_t> bytes) {
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

TEST_F(SessionTest, AReplyIsExplainedToWhoTakesIt) {
    Serve();
    const Client client = Connect();
    client.Say(RequestThatTakes(1));
    const host::Frame plain = client.peer.Read(1).at(0);
    EXPECT_EQ(plain.header.explanationSize, 0U) << "where the method says nothing";
    served::On("PidIsOnline", [](const void *, void *replyCtx) {
        TarnHost_Explain("not this");
        TarnHost_Explain(kReason);
        return AnswerOnline(replyCtx);
    });
    for (const uint32_t takes : {1U, 3U}) { // what else a newer peer may take
        client.Say(RequestThatTakes(takes));
        const host::Frame explained = client.peer.Read(1).at(0);
        EXPECT_EQ(explained.header.kind, FrameKind::kReply);
        ASSERT_EQ(explained.header.explanationSize, strlen(kReason));
        const size_t message = explained.payload.size() - strlen(kReason);
        EXPECT_EQ(TextOf(explained.payload).substr(0, message), TextOf(plain.payload));
        EXPECT_EQ(TextOf(explained.payload).substr(message), kReason);
    }
    for (const uint32_t takes : {0U, 2U}) { // 0: a client that knows of no explanations
        client.Say(RequestThatTakes(takes));
        const host::Frame frame = client.peer.Read(1).at(0);
        EXPECT_EQ(frame.header.explanationSize, 0U);
        EXPECT_EQ(TextOf(frame.payload), TextOf(plain.payload));
    }
}

TEST_F(SessionTest, AnErrorsReasonIsInItsTextAlone) {
    Serve();
    served::On("PidIsOnline", [](const void *, void *) {
        TarnHost_Explain(kReason);
        return 22U;
    });
    const Client client = Connect();
    client.Say(RequestThatTakes(1));
    const host::Frame error = client.peer.Read(1).at(0);
    EXPECT_EQ(error.header.kind, FrameKind::kError);
    EXPECT_EQ(error.header.status, 22U);
    EXPECT_EQ(error.header.deadlineMs, 0U);
    EXPECT_TRUE(TextOf(error.payload).ends_with(kReason)) << TextOf(error.payload);
}

TEST_F(SessionTest, AnAnswerThatComesLaterIsExplainedByItsContext) {
    Serve();
    std::vector<void *> contexts;
    served::On("PidIsOnline", [&](const void *, void *replyCtx) {
        contexts.push_back(replyCtx);
        return 0U;
    });
    const Client client = Connect();
    client.Say(RequestThatTakes(1, 1));
    client.Say(RequestThatTakes(1, 2));
    client.Say(RequestThatTakes(1, 3));
    ASSERT_EQ(contexts.size(), 3U);
    std::thread([&] {
        TarnHost_Explain("of no request that runs on this thread");
        EXPECT_EQ(TarnHost_ExplainReply(nullptr, kReason), uint32_t{EINVAL});
        EXPECT_EQ(TarnHost_ExplainReply(contexts[0], nullptr), uint32_t{EINVAL});
        EXPECT_EQ(TarnHost_ExplainReply(contexts[0], kReason), 0U);
        EXPECT_EQ(AnswerOnline(contexts[0]), 0U);
        EXPECT_EQ(TarnHost_ExplainReply(contexts[0], kReason), uint32_t{EALREADY});
        EXPECT_EQ(AnswerOnline(contexts[1]), 0U);
        EXPECT_EQ(TarnHost_ExplainReply(contexts[2], kReason), 0U);
        EXPECT_EQ(TarnHost_ReplyStatus(contexts[2], 22), 0U);
    }).join();
    std::map<uint64_t, host::Frame> answers;
    for (host::Frame &frame : client.peer.Read(3)) {
        answers[frame.header.id] = std::move(frame);
    }
    EXPECT_TRUE(TextOf(answers[1].payload).ends_with(kReason));
    EXPECT_EQ(answers[1].header.explanationSize, strlen(kReason));
    EXPECT_EQ(answers[2].header.explanationSize, 0U) << "another request's";
    EXPECT_EQ(answers[3].header.kind, FrameKind::kError);
    EXPECT_TRUE(TextOf(answers[3].payload).ends_with(kReason));
}

TEST_F(SessionTest, AnExplanationIsFitToBeShown) {
    served::On("PidIsOnline", [](const void *, void *replyCtx) {
        TarnHost_Explain(("line\n" + std::string(5000, 'x')).c_str());
        return AnswerOnline(replyCtx);
    });
    Serve();
    const Client client = Connect();
    client.Say(RequestThatTakes(1));
    const host::Frame reply = client.peer.Read(1).at(0);
    EXPECT_EQ(reply.header.explanationSize, 1024U);
    EXPECT_NE(TextOf(reply.payload).find("line?xxx"), std::string_view::npos);
}

class FullMessageTest : public SessionTest {
protected:
    // What the explanation of a reply has, where the server's messages have at most so many bytes more than this one's.
    uint32_t ExplanationSize(uint32_t roomLeft) {
        served::On("PidIsOnline", [](const void *, void *replyCtx) {
            TarnHost_Explain(kReason);
            return AnswerOnline(replyCtx);
        });
        const uint32_t message = velto::Codec<Unit, Tarn_sys_diag_PidIsOnlineOuput>::kFixedSize();
        Serve({.messageBytes = message + roomLeft});
        const Client client = Connect();
        client.Say(RequestThatTakes(1));
        const host::Frame reply = client.peer.Read(1).at(0);
        EXPECT_EQ(reply.header.kind, FrameKind::kReply);
        EXPECT_EQ(reply.payload.size(), message + reply.header.explanationSize);
        return reply.header.explanationSize;
    }
};

TEST_F(FullMessageTest, LeavesRoomForItsExplanation) {
    EXPECT_EQ(ExplanationSize(sizeof kReason - 1), sizeof kReason - 1);
}

TEST_F(FullMessageTest, GoesWithoutItsExplanationWhereThereIsNoRoom) {
    EXPECT_EQ(ExplanationSize(sizeof kReason - 2), 0U);
}

// --- Deadlines

TEST_F(SessionTest, ADeadlineCountsFromTheArrival) {
    Serve({.deadline = 7000ms, .maxDeadline = 60s});
    const Client client = Connect();
    const auto remaining = [&](uint32_t deadlineMs) {
        uint32_t all = 0;
        served::On("PidIsOnline", [&](const void *, void *replyCtx) {
            all = TarnHost_RemainingMs(nullptr);
            EXPECT_EQ(TarnHost_RemainingMs(replyCtx), all);
            clocks_.Advance(1ns);
            EXPECT_EQ(TarnHost_RemainingMs(replyCtx), all) << "of a ms that has begun all is left";
            clocks_.Advance(std::chrono::milliseconds(all) - 2ns);
            EXPECT_EQ(TarnHost_RemainingMs(replyCtx), 1U);
            EXPECT_EQ(TarnHost_Cancelled(replyCtx), 0U);
            clocks_.Advance(1ns);
            EXPECT_EQ(TarnHost_RemainingMs(replyCtx), 0U);
            EXPECT_EQ(TarnHost_Cancelled(replyCtx), uint32_t{ETIMEDOUT});
            clocks_.Advance(1h);
            EXPECT_EQ(TarnHost_RemainingMs(replyCtx), 0U);
            return AnswerOnline(replyCtx);
        });
        client.Say(OnlineRequest(1, deadlineMs));
        EXPECT_EQ(client.peer.Read(1).size(), 1U);
        return all;
    };
    EXPECT_EQ(remaining(500), 500U);
    EXPECT_EQ(remaining(0), 7000U) << "where the caller names none";
    EXPECT_EQ(remaining(60'001), 60'000U);
}

// The second client's request comes while the first one's keeps the only worker, and takes so long.
TEST_F(SessionTest, ARequestWhoseTimePassesBeforeItsTurnIsNotRun) {
    Serve();
    for (const auto &[time, runs] :
         {std::pair(50ms - 1ns, true), std::pair<std::chrono::nanoseconds, bool>(50ms, false)}) {
        const Client first = Connect(), second = Connect();
        size_t ran = 0;
        served::On("PidIsOnline", [&, passes = time](const void *, void *replyCtx) {
            if (++ran == 1) {
                second.Say(OnlineRequest(2, 50));
                clocks_.Advance(passes);
            }
            return AnswerOnline(replyCtx);
        });
        first.Say(OnlineRequest(1));
        EXPECT_EQ(ran, runs ? 2U : 1U);
        const auto frames = second.peer.Read(1);
        EXPECT_EQ(frames.at(0).header.errCode, runs ? 0U : uint32_t{ETIMEDOUT});
    }
    EXPECT_EQ(Refused(host::Reason::kExpired), 1U);
}

TEST_F(SessionTest, ARequestThatIsLeftUnansweredEndsAtItsDeadline) {
    Serve();
    void *context = nullptr;
    served::On("PidIsOnline", [&](const void *, void *replyCtx) {
        context = replyCtx;
        return 0U;
    });
    const Client client = Connect();
    client.Say(OnlineRequest(9, 50));
    clocks_.Advance(50ms - 1ns);
    loop_.RunDue();
    EXPECT_EQ(TarnHost_Cancelled(context), 0U);
    clocks_.Advance(1ns);
    loop_.RunDue();
    EXPECT_EQ(TarnHost_Cancelled(context), uint32_t{EALREADY});
    EXPECT_EQ(AnswerOnline(context), uint32_t{EALREADY});
    const auto frames = client.peer.Read(1);
    EXPECT_EQ(frames.at(0).header.kind, FrameKind::kError);
    EXPECT_EQ(frames.at(0).header.id, 9U);
    EXPECT_EQ(frames.at(0).header.errCode, uint32_t{ETIMEDOUT});
    EXPECT_EQ(host::ErrorText(frames.at(0).payload), "TarnSysdiagTarnd.PidIsOnline: not answered within its deadline");
}

TEST_F(SessionTest, AnAnswerThatComesInTimeStopsTheDeadline) {
    Serve();
    void *context = nullptr;
    served::On("PidIsOnline", [&](const void *, void *replyCtx) {
        context = replyCtx;
        return 0U;
    });
    const Client client = Connect();
    client.Say(OnlineRequest(1, 50));
    EXPECT_EQ(AnswerOnline(context), 0U);
    clocks_.Advance(1h);
    loop_.RunDue();
    EXPECT_EQ(client.peer.Read(1).at(0).header.kind, FrameKind::kReply);
    EXPECT_TRUE(client.peer.HasBeenRead());
    EXPECT_NE(StatusOf("PidIsOnline").find("\"calls\":1,"), std::string::npos) << StatusOf("PidIsOnline");
}

// --- Callers that give up

std::vector<uint8_t> CancelOf(uint64_t id) {
    host::FrameHeader header;
    header.kind = FrameKind::kCancel;
    header.id = id;
    return host::MakeFrame(header, {});
}

TEST_F(SessionTest, ACallThatIsCancelledWhileItRunsIsToldAndNotAnswered) {
    Serve();
    const Client client = Connect();
    served::On("PidIsOnline", [&](const void *, void *replyCtx) {
        client.Say(CancelOf(4));
        EXPECT_EQ(TarnHost_Cancelled(replyCtx), 0U) << "another call";
        client.Say(CancelOf(5));
        client.Say(CancelOf(5));
        EXPECT_EQ(TarnHost_Cancelled(replyCtx), uint32_t{ECANCELED});
        return AnswerOnline(replyCtx);
    });
    client.Say(OnlineRequest(5));
    EXPECT_EQ(served::Freed("PidIsOnline"), 1U);
    served::On("PidIsOnline", [](const void *, void *) { return 5U; });
    client.Say(OnlineRequest(6));
    EXPECT_EQ(client.peer.Read(1).at(0).header.id, 6U);
    const std::string status = StatusOf("PidIsOnline");
    EXPECT_NE(status.find("\"calls\":2,"), std::string::npos) << status;
    EXPECT_NE(status.find("\"cancelled\":1,"), std::string::npos) << status;
    EXPECT_NE(status.find("\"errors\":1,"), std::string::npos) << status;
}

TEST_F(SessionTest, ACallThatIsCancelledWhileItRunsAndLeftUnansweredIsGone) {
    Serve();
    const Client client = Connect();
    void *context = nullptr;
    served::On("PidIsOnline", [&](const void *, void *replyCtx) {
        context = replyCtx;
        client.Say(CancelOf(5));
        return 0U;
    });
    client.Say(OnlineRequest(5));
    EXPECT_EQ(AnswerOnline(context), uint32_t{EALREADY});
}

TEST_F(SessionTest, ACallThatIsCancelledBeforeItsTurnIsNotRun) {
    Serve();
    const Client first = Connect(), second = Connect();
    size_t ran = 0;
    served::On("PidIsOnline", [&](const void *, void *replyCtx) {
        if (++ran == 1) {
            second.Say(OnlineRequest(2));
            second.Say(OnlineRequest(3));
            first.Say(CancelOf(2)); // another connection's call has the same number
            second.Say(CancelOf(3));
        }
        return AnswerOnline(replyCtx);
    });
    first.Say(OnlineRequest(1));
    EXPECT_EQ(ran, 2U);
    EXPECT_EQ(second.peer.Read(1).at(0).header.id, 2U);
}

TEST_F(SessionTest, ACallerThatGoesTakesItsUnansweredCallsAlong) {
    Serve();
    std::vector<void *> contexts;
    served::On("PidIsOnline", [&](const void *, void *replyCtx) {
        contexts.push_back(replyCtx);
        return 0U;
    });
    const Client stays = Connect();
    stays.Say(OnlineRequest(1));
    {
        const Client goes = Connect();
        goes.Say(OnlineRequest(1));
        shutdown(goes.peer.Fd(), SHUT_WR);
        goes.Report(EPOLLIN | EPOLLRDHUP);
    }
    EXPECT_EQ(TarnHost_Cancelled(contexts.at(0)), 0U);
    EXPECT_EQ(TarnHost_Cancelled(contexts.at(1)), uint32_t{EALREADY});
    EXPECT_EQ(AnswerOnline(contexts.at(0)), 0U);
}

} // namespace
