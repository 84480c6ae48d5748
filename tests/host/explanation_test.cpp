// Why the result in a reply is a failure, as callers are told: through the client, through the library's proxies, and
// by servers that know of no explanations or send bad ones.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/agent.h"
#include "tarn_sysdiag/types/tarnd.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstring>
#include <future>

#include "host/osal/log.h"
#include "host/runtime/server.h"
#include "kit.h"
#include "peer.h"
#include "served.h"
#include "tarn_sysdiag/client/agent.h"
#include "tarn_sysdiag/host/reply.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace {

using namespace std::chrono_literals;

constexpr char kReason[] = "begins-at is 1900 ‰, expected 0 to 1000";
constexpr const char *kTarnd = "TarnSysdiagTarnd", *kAgent = "TarnSysdiagAgent";

host::CallOutcome AskAsync(host::Client &client, const host::CallRequest &call) {
    std::promise<host::CallOutcome> ended;
    client.CallAsync(call, [&](host::CallOutcome &&outcome) { ended.set_value(std::move(outcome)); });
    return ended.get_future().get();
}

class ExplanationTest : public testing::Test {
protected:
    ExplanationTest() {
        host::Log().set_level(host::LogLevel::kOff);
        host::Client::Default().Configure({.runDir = dir_.Path()});
        client_.Configure({.runDir = dir_.Path()});
    }
    ~ExplanationTest() override {
        client_.Shutdown();
        host::Client::Default().Shutdown();
        served::Reset();
        host::Log().set_level(host::LogLevel::kInfo);
    }

    const kit::TempDir dir_;
    host::Client client_;
};

// ---- From a server ----

class ServedExplanationTest : public ExplanationTest {
protected:
    ServedExplanationTest() : server_({.runDir = dir_.Path()}) {
        server_.AddService(__module_spec_TarnSysdiagTarnd);
        server_.AddService(served_module_spec_TarnSysdiagAgent);
        server_.Start();
    }

    // Has the agent's method answer with a result, after it has explained that.
    static void AnswerResultGet(uint32_t result, const std::string &reason) {
        served::On("DBGCmdExecResultGet", [=](const void *, void *replyCtx) {
            if (!reason.empty()) {
                TarnHost_Explain(reason.c_str());
            }
            Tarn_sys_diag_DiagResult reply{result, 0, nullptr};
            return TarnHost_Reply(replyCtx, &reply);
        });
    }

    host::Server server_;
};

TEST_F(ServedExplanationTest, ComesToTheClient) {
    served::On("PidIsOnline", [](const void *, void *replyCtx) {
        TarnHost_Explain(kReason);
        Tarn_sys_diag_PidIsOnlineOuput online{7, 1};
        return TarnHost_Reply(replyCtx, &online);
    });
    const auto request = kit::Encode<Unit>(Tarn_sys_diag_PidIsOnlineInput{7});
    const host::CallRequest call{.service = kTarnd,
                                 .method = "PidIsOnline",
                                 .requestHash = velto::kTypeHash<Tarn_sys_diag_PidIsOnlineInput>,
                                 .request = request};
    for (host::CallOutcome &outcome : std::array{client_.Call(call), AskAsync(client_, call)}) {
        EXPECT_TRUE(outcome.Ok()) << outcome.text;
        EXPECT_EQ(outcome.explanation, kReason);
        EXPECT_EQ(outcome.text, "");
        const kit::Answer<Unit, Tarn_sys_diag_PidIsOnlineOuput> answer(std::move(outcome));
        EXPECT_EQ(answer->uiPid, 7U);
    }
}

TEST_F(ServedExplanationTest, ComesToACallerOfAProxy) {
    const auto call = [] {
        Tarn_sys_diag_DiagResult reply{};
        const Tarn_sys_diag_DbgCmdResultGetInput input{};
        const IdlCallResult result = TarnSysdiagAgent_DBGCmdExecResultGet(&input, &reply, nullptr);
        EXPECT_EQ(result.uiErrCode, 0U) << TarnHost_LastError();
        return std::pair(reply.uiResult, std::string(TarnHost_Explanation()));
    };
    AnswerResultGet(22, kReason);
    EXPECT_EQ(call(), std::pair(22U, std::string(kReason)));
    std::thread([] { EXPECT_STREQ(TarnHost_Explanation(), "") << "another thread's"; }).join();
    EXPECT_STREQ(TarnHost_Explanation(), kReason);
    AnswerResultGet(0, "");
    EXPECT_EQ(call(), std::pair(0U, std::string()));
}

TEST_F(ServedExplanationTest, IsGoneAfterACallThatFails) {
    Tarn_sys_diag_DiagResult reply{};
    const Tarn_sys_diag_DbgCmdResultGetInput input{};
    const auto explain = [&] {
        AnswerResultGet(22, kReason);
        TarnSysdiagAgent_DBGCmdExecResultGet(&input, &reply, nullptr);
        EXPECT_STREQ(TarnHost_Explanation(), kReason);
    };
    explain();
    served::On("DBGCmdExecResultGet", [](const void *, void *) {
        TarnHost_Explain(kReason);
        return 22U;
    });
    EXPECT_EQ(TarnSysdiagAgent_DBGCmdExecResultGet(&input, &reply, nullptr).uiStatus, 22U);
    EXPECT_STREQ(TarnHost_Explanation(), "");
    EXPECT_TRUE(std::string(TarnHost_LastError()).ends_with(kReason)) << TarnHost_LastError();
    explain();
    TarnHost_InvokeCtx nobody{999999999, 0};
    EXPECT_NE(TarnSysdiagAgent_DBGCmdExecResultGet(&input, &reply, &nobody).uiErrCode, 0U);
    EXPECT_STREQ(TarnHost_Explanation(), "");
}

TEST_F(ServedExplanationTest, ComesToTheCallbackOfAProxy) {
    struct Seen {
        std::promise<void> done;
        uint32_t result = 0;
        std::string explanation;
    };
    const auto callback = [](const IdlCallResult *, void *response, void *user) {
        auto &seen = *static_cast<Seen *>(user);
        seen.result = response == nullptr ? 0 : static_cast<const Tarn_sys_diag_DiagResult *>(response)->uiResult;
        seen.explanation = TarnHost_Explanation();
        seen.done.set_value();
    };
    for (const auto &[result, reason] : {std::pair(22U, kReason), {5U, ""}}) {
        AnswerResultGet(result, reason);
        Seen seen;
        const Tarn_sys_diag_DbgCmdResultGetInput input{};
        ASSERT_EQ(TarnSysdiagAgent_DBGCmdExecResultGet_async(&input, callback, &seen, nullptr), 0U);
        seen.done.get_future().wait();
        EXPECT_EQ(seen.result, result);
        EXPECT_EQ(seen.explanation, reason);
    }
    EXPECT_STREQ(TarnHost_Explanation(), "") << "not on this thread";
}

// ---- From frames written by hand ----

// An agent's socket, whose calls the test answers with bytes.
class HandmadeTest : public ExplanationTest {
protected:
    HandmadeTest() : listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = host::Directory(dir_.Path()).Socket(kAgent, 0);
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(listener_.Fd(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener_.Fd(), 2), 0);
    }

    // What becomes of a call, blocking or not, that is answered with the payload, and this word at 20.
    host::CallOutcome Ask(bool async, uint32_t wordAt20, const std::string &payload) {
        const host::CallRequest call{.service = kAgent, .method = "Any", .deadline = 20s};
        auto outcome =
            std::async(std::launch::async, [&] { return async ? AskAsync(client_, call) : client_.Call(call); });
        const peer::RawPeer peer(accept(listener_.Fd(), nullptr, nullptr));
        const host::Frame request = peer.Read(1).at(0);
        EXPECT_EQ(request.header.takes, host::kTakesExplanation);
        host::FrameHeader header;
        header.kind = host::FrameKind::kReply;
        header.id = request.header.id;
        std::vector<uint8_t> reply =
            host::MakeFrame(header, {reinterpret_cast<const uint8_t *>(payload.data()), payload.size()});
        memcpy(&reply[20], &wordAt20, sizeof wordAt20);
        peer.Send(reply);
        host::CallOutcome ended = outcome.get();
        client_.Configure({.runDir = dir_.Path()}); // the next call connects anew
        return ended;
    }

    static std::string MessageOf(const host::CallOutcome &outcome) {
        return {outcome.bytes.begin(), outcome.bytes.end()};
    }

    const host::Descriptor listener_;
};

TEST_F(HandmadeTest, ServersThatKnowOfNoneAreUnderstood) {
    for (const bool async : {false, true}) {
        const host::CallOutcome outcome = Ask(async, 0, "message");
        EXPECT_TRUE(outcome.Ok()) << outcome.text;
        EXPECT_EQ(MessageOf(outcome), "message");
        EXPECT_EQ(outcome.explanation, "");
    }
}

TEST_F(HandmadeTest, IsTakenOffTheMessageAndFitToBeShown) {
    for (const bool async : {false, true}) {
        const host::CallOutcome outcome = Ask(async, 6, "messagewhy\n\x1B.");
        EXPECT_TRUE(outcome.Ok()) << outcome.text;
        EXPECT_EQ(MessageOf(outcome), "message");
        EXPECT_EQ(outcome.explanation, "why??.");
        const host::CallOutcome alone = Ask(async, 3, "why");
        EXPECT_TRUE(alone.Ok()) << alone.text;
        EXPECT_EQ(MessageOf(alone), "");
        EXPECT_EQ(alone.explanation, "why");
        const host::CallOutcome large = Ask(async, 5000, "message" + std::string(5000, 'x'));
        EXPECT_EQ(MessageOf(large), "message");
        EXPECT_EQ(large.explanation, std::string(1024, 'x'));
    }
}

TEST_F(HandmadeTest, OneLongerThanItsPayloadIsRefused) {
    for (const bool async : {false, true}) {
        for (const uint32_t size : {8U, UINT32_MAX}) {
            const host::CallOutcome outcome = Ask(async, size, "message");
            EXPECT_EQ(outcome.errCode, uint32_t{EBADMSG});
            EXPECT_EQ(outcome.text,
                      "the reply has 7 bytes, expected at least the " + std::to_string(size) + " of its explanation");
            EXPECT_EQ(outcome.explanation, "");
            EXPECT_TRUE(outcome.bytes.empty());
        }
    }
}

} // namespace
