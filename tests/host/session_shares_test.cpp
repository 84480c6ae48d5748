// What a server gives each of its users, and what it decides of a request at its header.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include "session_kit.h"

namespace {

using namespace std::chrono_literals;
using kit::AnswerOnline;
using kit::Client;
using peer::OnlineRequest;

constexpr uid_t kFirst = 4711, kSecond = 4712;

class SharesTest : public kit::SessionTest {
protected:
    uint64_t Used(host::Resource resource) { return core_->QuotaOf(resource).Used(); }

    // The header of a request that has a payload of so many bytes.
    static std::vector<uint8_t> HeaderOf(const char *method, uint32_t typeHash, uint32_t length, uint64_t id = 1) {
        host::FrameHeader header;
        header.id = id;
        header.typeHash = typeHash;
        strcpy(header.service, "TarnSysdiagTarnd");
        strcpy(header.method, method);
        header.length = length;
        std::vector<uint8_t> bytes(host::kHeaderSize);
        WriteHeader(header, std::span(bytes).first<host::kHeaderSize>());
        return bytes;
    }

    // Of a type that has texts, so that it may be as large as any.
    static std::vector<uint8_t> LargeRequest(uint32_t length) {
        return HeaderOf("GetTaskInfo", velto::kTypeHash<Tarn_sys_diag_GetTaskInfoInput>, length);
    }

    // The payload of a refused request, in pieces that the socket takes, and one more request.
    static void SayPayloadAndAnother(const Client &client, size_t length) {
        const std::vector<uint8_t> piece(10'000);
        for (size_t left = length; left > 0;) {
            const size_t some = std::min(left, piece.size());
            client.Say(std::span(piece).first(some));
            left -= some;
        }
        client.Say(OnlineRequest(2));
    }

    static void ExpectRefusal(const host::Frame &frame, uint32_t errCode, const std::string &text) {
        EXPECT_EQ(frame.header.id, 1U);
        EXPECT_EQ(frame.header.errCode, errCode);
        EXPECT_EQ(host::ErrorText(frame.payload), text);
    }
};

constexpr const char *kAll = "reading anyone";

// --- Workers

TEST_F(SharesTest, AUserHasHisShareOfTheWorkersAndWaitsForMore) {
    Serve({}, 4, kAll); // one is root's: a user alone has one of the other three, as half of them
    const Client first = Connect(kFirst), again = Connect(kFirst), second = Connect(kSecond), root = Connect(0);
    std::string order;
    served::On("PidIsOnline", [&](const void *request, void *replyCtx) {
        const uint32_t id = static_cast<const Tarn_sys_diag_PidIsOnlineInput *>(request)->uiPid;
        order += std::to_string(id);
        if (id == 1) {
            again.Say(OnlineRequest(2));
            second.Say(OnlineRequest(3));
            root.Say(OnlineRequest(4));
            EXPECT_EQ(order, "134") << "others are served meanwhile";
        }
        return AnswerOnline(replyCtx);
    });
    first.Say(OnlineRequest(1));
    loop_.RunDue();
    EXPECT_EQ(order.substr(0, 3), "134");
    EXPECT_EQ(again.peer.Read(1).size(), 1U);
    EXPECT_EQ(Used(host::Resource::kWorkers), 0U);
}

TEST_F(SharesTest, UsersThatWaitAreServedInTurn) {
    Serve({}, 1, kAll);
    const Client running = Connect(0), second = Connect(kSecond);
    std::vector<Client> first;
    for (int i = 0; i < 3; ++i) {
        first.push_back(Connect(kFirst));
    }
    std::string order;
    served::On("PidIsOnline", [&](const void *request, void *replyCtx) {
        const uint32_t id = static_cast<const Tarn_sys_diag_PidIsOnlineInput *>(request)->uiPid;
        order += std::to_string(id);
        if (id == 9) {
            first[0].Say(OnlineRequest(1));
            first[1].Say(OnlineRequest(2));
            first[2].Say(OnlineRequest(3));
            second.Say(OnlineRequest(4));
        }
        return AnswerOnline(replyCtx);
    });
    running.Say(OnlineRequest(9));
    EXPECT_EQ(order, "91423");
}

// --- Requests in flight and their bytes

TEST_F(SharesTest, AUserHasHisShareOfTheRequestsHoweverManyConnectionsHeHas) {
    Serve({.requests = 16}, 16, kAll);
    std::vector<void *> contexts;
    served::On("PidIsOnline", [&](const void *, void *replyCtx) {
        contexts.push_back(replyCtx);
        return 0U;
    });
    std::vector<Client> clients;
    for (int i = 0; i < 10; ++i) {
        clients.push_back(Connect(kFirst));
        clients.back().Say(OnlineRequest(1));
    }
    EXPECT_EQ(contexts.size(), 7U) << "two are left to root, and half of the others are his";
    ExpectRefusal(clients[7].peer.Read(1).at(0), EBUSY,
                  "TarnSysdiagTarnd.PidIsOnline: user 4711 has 7 requests in flight, which is his share");
    const Client second = Connect(kSecond), root = Connect(0);
    second.Say(OnlineRequest(1));
    root.Say(OnlineRequest(1));
    EXPECT_EQ(contexts.size(), 9U);
    for (void *const context : contexts) {
        EXPECT_EQ(AnswerOnline(context), 0U);
    }
    EXPECT_EQ(Used(host::Resource::kRequests), 0U);
}

TEST_F(SharesTest, AConnectionThatAsksForMoreThanTheShareIsNotReadForAWhile) {
    Serve({.requests = 4}, 4, kAll);
    std::vector<void *> contexts;
    served::On("PidIsOnline", [&](const void *, void *replyCtx) {
        contexts.push_back(replyCtx);
        return 0U;
    });
    const Client client = Connect(kFirst);
    for (uint64_t id = 1; id <= 3; ++id) {
        client.Say(OnlineRequest(id));
    }
    ASSERT_EQ(contexts.size(), 2U);
    EXPECT_EQ(client.peer.Read(1).at(0).header.errCode, uint32_t{EBUSY});
    EXPECT_EQ(AnswerOnline(contexts[0]), 0U);
    client.Say(OnlineRequest(4));
    EXPECT_FALSE(client.peer.HasBeenRead());
    clocks_.Advance(100ms);
    loop_.RunDue();
    client.Report(EPOLLIN);
    EXPECT_EQ(contexts.size(), 3U);
    EXPECT_EQ(AnswerOnline(contexts[1]), 0U);
    EXPECT_EQ(AnswerOnline(contexts[2]), 0U);
}

TEST_F(SharesTest, RequestsThatAreNotWholeTakeNoMoreThanAUsersShare) {
    Serve({.receivedBytes = 16 << 20}, 4, kAll);
    std::vector<Client> clients;
    for (int i = 0; i < 20; ++i) {
        clients.push_back(Connect(kFirst));
        clients.back().Say(LargeRequest(1 << 20));
        clients.back().Say(std::vector<uint8_t>(1000));
    }
    EXPECT_EQ(Used(host::Resource::kReceivedBytes), 6 * ((1 << 20) + host::kHeaderSize)) << "of 7 MiB";
    const Client root = Connect(0);
    root.Say(LargeRequest(8 << 20));
    EXPECT_EQ(Used(host::Resource::kRequests), 7U);
    clients.clear();
    for (const auto &session : sessions_) {
        session->Close();
    }
    sessions_.clear();
    RunTasks();
    EXPECT_EQ(Used(host::Resource::kReceivedBytes), (8 << 20) + host::kHeaderSize) << "root's alone is left";
}

// --- At the header

TEST_F(SharesTest, ADeniedRequestIsNotKeptAndTheConnectionGoesOn) {
    Serve({}, 1, "PidIsOnline anyone");
    const Client client = Connect(kFirst);
    client.Say(LargeRequest(1 << 20));
    EXPECT_EQ(Used(host::Resource::kReceivedBytes), 0U);
    SayPayloadAndAnother(client, 1 << 20);
    const auto frames = client.peer.Read(2);
    ExpectRefusal(frames.at(0), EACCES,
                  "TarnSysdiagTarnd.GetTaskInfo: denied to user 4711; the policy has \"same-user user:root\" (group "
                  "reading)");
    EXPECT_EQ(frames.at(1).header.kind, host::FrameKind::kReply);
    EXPECT_EQ(Refused(host::Reason::kDenied), 1U);
}

TEST_F(SharesTest, ARequestLargerThanAnyOfItsTypeIsNotKept) {
    Serve();
    const Client client = Connect();
    client.Say(HeaderOf("PidIsOnline", velto::kTypeHash<Tarn_sys_diag_PidIsOnlineInput>, 100'000));
    EXPECT_EQ(Used(host::Resource::kReceivedBytes), 0U);
    SayPayloadAndAnother(client, 100'000);
    const auto frames = client.peer.Read(2);
    EXPECT_EQ(frames.at(0).header.errCode, uint32_t{EMSGSIZE});
    EXPECT_EQ(frames.at(1).header.kind, host::FrameKind::kReply);
    EXPECT_EQ(Refused(host::Reason::kRequestSize), 1U);
}

TEST_F(SharesTest, ACancelHasNoPayloadToKeep) {
    Serve();
    const Client client = Connect();
    std::vector<uint8_t> cancel = HeaderOf("", 0, 1 << 20);
    cancel[6] = static_cast<uint8_t>(host::FrameKind::kCancel);
    client.Say(cancel);
    EXPECT_EQ(Used(host::Resource::kReceivedBytes), 0U);
    SayPayloadAndAnother(client, 1 << 20);
    EXPECT_EQ(client.peer.Read(1).at(0).header.id, 2U);
}

} // namespace
