// A server for which an allocation fails, each that it makes in turn: the connection that it was for may end, and
// nothing else.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <cstdlib>
#include <new>

#include "session_kit.h"

namespace {

constexpr size_t kNone = SIZE_MAX;
constexpr char kReason[] = "longer than what a string has room for in itself";
thread_local size_t allocationsLeft = kNone; // of this thread, until one fails

} // namespace

void *operator new(size_t size) {
    if (allocationsLeft != kNone && allocationsLeft-- == 0) {
        allocationsLeft = kNone;
        throw std::bad_alloc();
    }
    void *const block = malloc(size == 0 ? 1 : size);
    return block != nullptr ? block : throw std::bad_alloc();
}

// Not inlined: with sanitizers g++ 12 takes free for the wrong counterpart of new.
[[gnu::noinline]] void operator delete(void *block) noexcept {
    free(block);
}

[[gnu::noinline]] void operator delete(void *block, size_t) noexcept {
    free(block);
}

namespace {

using kit::Client;
using peer::OnlineRequest;

class NoMemoryTest : public kit::SessionTest {
protected:
    // Whether an allocation failed while the server read what the client had sent.
    static bool ReportWithFailure(const Client &client, size_t after) {
        allocationsLeft = after;
        EXPECT_NO_THROW(client.Report(EPOLLIN));
        return std::exchange(allocationsLeft, kNone) == kNone;
    }

    // Fails each allocation that the server makes for what a client sends.
    void FailEach(const std::vector<uint8_t> &sent, size_t answers) {
        Serve({}, 4);
        size_t ended = 0, after = 0;
        for (bool failed = true; failed; ++after) {
            const Client bystander = Connect(), client = Connect();
            client.peer.Send(sent);
            failed = ReportWithFailure(client, after);
            const bool hasEnded = HasEnded(client);
            ended += hasEnded ? 1 : 0;
            if (!hasEnded) {
                EXPECT_EQ(client.peer.Read(answers).size(), answers) << "allocation " << after;
            }
            bystander.Say(OnlineRequest(1));
            EXPECT_EQ(bystander.peer.Read(1).size(), 1U) << "allocation " << after;
            EXPECT_EQ(core_->QuotaOf(host::Resource::kWorkers).Used(), 0U) << "allocation " << after;
            sessions_.back()->CheckTimes(clocks_.SteadyNow());
        }
        EXPECT_GT(ended, 0U);
        EXPECT_EQ(Refused(host::Reason::kNoMemory), ended);
        printf("%zu allocations, %zu connections ended\n", after - 1, ended);
        for (const auto &session : sessions_) {
            session->Close();
        }
        sessions_.clear();
        RunTasks();
        core_->Start(); // whose threads take what waits for one, and hold nothing then
        EXPECT_TRUE(core_->Stop());
        EXPECT_EQ(core_->QuotaOf(host::Resource::kRequests).Used(), 0U);
        EXPECT_EQ(core_->QuotaOf(host::Resource::kReceivedBytes).Used(), 0U);
    }
};

TEST_F(NoMemoryTest, ForARequest) {
    FailEach(OnlineRequest(1), 1);
}

TEST_F(NoMemoryTest, ForRequestsThatWaitForEachOther) {
    std::vector<uint8_t> sent = OnlineRequest(1);
    sent[6] = static_cast<uint8_t>(host::FrameKind::kOneway);
    for (uint64_t id = 2; id <= 4; ++id) {
        const std::vector<uint8_t> next = OnlineRequest(id);
        sent.insert(sent.end(), next.begin(), next.end());
    }
    FailEach(sent, 3);
}

TEST_F(NoMemoryTest, ForARequestThatIsRefused) {
    std::vector<uint8_t> sent = OnlineRequest(1);
    sent[16] ^= 1; // of another type
    FailEach(sent, 1);
}

TEST_F(NoMemoryTest, ForACallThatFails) {
    served::On("PidIsOnline", [](const void *, void *) { return 22U; });
    FailEach(OnlineRequest(1), 1);
}

TEST_F(NoMemoryTest, ForAReplyThatHasToWait) {
    served::On("PidIsOnline", [](const void *, void *replyCtx) {
        const bool isSpared = allocationsLeft != 0;
        uint32_t error = ENOMEM;
        EXPECT_NO_THROW(error = TarnHost_ExplainReply(replyCtx, kReason)) << "through callers in C";
        EXPECT_EQ(error, isSpared ? 0U : uint32_t{ENOMEM});
        return kit::AnswerOnline(replyCtx);
    });
    std::vector<uint8_t> sent = OnlineRequest(1);
    sent[24] = 1; // takes an explanation
    FailEach(sent, 1);
}

} // namespace
