// Copies of what a server receives and sends.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include "host/runtime/tap.h"
#include "session_kit.h"

namespace {

using host::Direction;
using host::FrameKind;
using kit::Client;
using peer::OnlineRequest;

// --- The tap itself

std::vector<uint8_t> Some(size_t size) {
    return std::vector<uint8_t>(size, 7);
}

host::Tapped TakeFrom(host::Tap::Reader &reader, std::string &text) {
    text = reader.Take();
    const auto tapped = host::ReadTapped({reinterpret_cast<const uint8_t *>(text.data()), text.size()});
    EXPECT_TRUE(tapped.has_value());
    return tapped.value_or(host::Tapped());
}

TEST(Tap, IsUsedWhileItHasAReader) {
    host::Tap tap;
    EXPECT_FALSE(tap.IsUsed());
    auto first = tap.Open(), second = tap.Open();
    EXPECT_TRUE(tap.IsUsed());
    first.reset();
    EXPECT_TRUE(tap.IsUsed());
    second.reset();
    EXPECT_FALSE(tap.IsUsed());
}

TEST(Tap, DropsAndCountsWhatASlowReaderHasNoRoomFor) {
    host::Tap tap;
    const auto reader = tap.Open();
    const std::vector<uint8_t> payload = Some(host::Tap::kMostOfFrame);
    constexpr size_t kFrames = 20;
    for (size_t i = 0; i < kFrames; ++i) {
        tap.Add({.length = static_cast<uint32_t>(payload.size())}, {}, payload);
    }
    size_t taken = 0;
    uint64_t dropped = 0;
    std::string text;
    for (host::Tapped tapped = TakeFrom(*reader, text); !tapped.frames.empty(); tapped = TakeFrom(*reader, text)) {
        EXPECT_LE(text.size(), host::Tap::kMostAtOnce);
        taken += tapped.frames.size();
        dropped += tapped.dropped;
    }
    EXPECT_EQ(taken, host::Tap::kMostWaiting / (payload.size() + 36));
    EXPECT_EQ(taken + dropped, kFrames);
    tap.Add({}, {}, {});
    EXPECT_EQ(TakeFrom(*reader, text).frames.size(), 1U) << "there is room again";
}

TEST(Tap, KeepsTheFirstBytesOfALongFrame) {
    host::Tap tap;
    const auto reader = tap.Open();
    const std::vector<uint8_t> head = Some(100), payload = Some(host::Tap::kMostOfFrame);
    tap.Add({.length = static_cast<uint32_t>(100 + payload.size())}, head, payload);
    std::string text;
    const host::Tapped tapped = TakeFrom(*reader, text);
    ASSERT_EQ(tapped.frames.size(), 1U);
    EXPECT_EQ(tapped.frames[0].bytes.size(), host::Tap::kMostOfFrame);
    EXPECT_EQ(tapped.frames[0].length, 100 + payload.size());
}

TEST(Tapped, IsReadOnlyWhereItIsWhole) {
    const std::vector<uint8_t> bytes = Some(5);
    const std::string text = host::TextOf(3) + host::TextOf({.length = 9, .bytes = bytes});
    for (size_t size = 0; size <= text.size(); ++size) {
        const auto tapped = host::ReadTapped({reinterpret_cast<const uint8_t *>(text.data()), size});
        EXPECT_EQ(tapped.has_value(), size == 8 || size == text.size()) << size;
    }
    std::string longer = host::TextOf(0) + host::TextOf({.length = 4, .bytes = bytes});
    EXPECT_FALSE(host::ReadTapped({reinterpret_cast<const uint8_t *>(longer.data()), longer.size()}).has_value())
        << "more bytes than the frame has";
}

// --- A server's

class SessionTapTest : public kit::SessionTest {
protected:
    static host::Frame Ask(const Client &client) { return AskRuntime(client, "Capture"); }

    // What has been captured, which lives until the next time.
    host::Tapped Captured(const Client &client) {
        answer_ = Ask(client);
        EXPECT_EQ(answer_.header.kind, FrameKind::kReply) << host::ErrorText(answer_.payload);
        const auto tapped = host::ReadTapped(answer_.payload);
        EXPECT_TRUE(tapped.has_value());
        return tapped.value_or(host::Tapped());
    }

    void SetPolicy(const std::string &policy) {
        std::istringstream text(policy);
        core_->SetPolicy(host::Policy::Parse(text, "policy"));
    }

    static std::vector<uint8_t> BytesOf(const host::TappedFrame &frame) {
        return {frame.bytes.begin(), frame.bytes.end()};
    }

    host::Frame answer_;
};

TEST_F(SessionTapTest, HasWhatOthersAskAndAreAnswered) {
    Serve();
    const Client reader = Connect(), other = Connect();
    other.Say(OnlineRequest(4));
    EXPECT_EQ(other.peer.Read(1).size(), 1U);
    EXPECT_TRUE(Captured(reader).frames.empty()) << "from the first request on";
    other.Say(OnlineRequest(5));
    const auto answers = other.peer.Read(1);
    ASSERT_EQ(answers.size(), 1U);
    const host::Tapped tapped = Captured(reader);
    ASSERT_EQ(tapped.frames.size(), 2U);
    for (const host::TappedFrame &frame : tapped.frames) {
        EXPECT_EQ(frame.time, clocks_.WallNow());
        EXPECT_EQ(frame.connection, 2U);
        EXPECT_EQ(frame.process, static_cast<uint32_t>(getpid()));
        EXPECT_EQ(frame.user, geteuid());
        EXPECT_EQ(frame.length, frame.bytes.size());
    }
    EXPECT_EQ(tapped.frames[0].direction, Direction::kReceived);
    EXPECT_EQ(BytesOf(tapped.frames[0]), OnlineRequest(5));
    EXPECT_EQ(tapped.frames[1].direction, Direction::kSent);
    EXPECT_EQ(BytesOf(tapped.frames[1]), host::MakeFrame(answers[0].header, answers[0].payload));
    EXPECT_TRUE(Captured(reader).frames.empty()) << "and each once";
}

TEST_F(SessionTapTest, HasRefusedRequestsWithoutWhatWasNotKept) {
    Serve();
    const Client reader = Connect(), other = Connect();
    Captured(reader);
    std::vector<uint8_t> request = OnlineRequest(5);
    request[16] ^= 1; // of the type's hash
    other.Say(request);
    EXPECT_EQ(other.peer.Read(1).size(), 1U);
    const host::Tapped tapped = Captured(reader);
    ASSERT_EQ(tapped.frames.size(), 2U);
    EXPECT_EQ(tapped.frames[0].bytes.size(), host::kHeaderSize);
    EXPECT_EQ(tapped.frames[0].length, request.size());
}

TEST_F(SessionTapTest, EndsWithItsConnection) {
    Serve();
    const Client other = Connect();
    {
        const Client reader = Connect();
        Captured(reader);
        EXPECT_TRUE(core_->GetTap().IsUsed());
        reader.session->Close();
        sessions_.pop_back();
    }
    RunTasks();
    EXPECT_FALSE(core_->GetTap().IsUsed());
}

TEST_F(SessionTapTest, IsForAFewAtATime) {
    Serve();
    std::vector<Client> readers;
    for (size_t i = 0; i < host::Tap::kMostReaders; ++i) {
        readers.push_back(Connect());
        Captured(readers.back());
    }
    const host::Frame refused = Ask(Connect());
    EXPECT_EQ(refused.header.errCode, uint32_t{EBUSY});
    EXPECT_EQ(host::ErrorText(refused.payload), "TarnHostRuntime.Capture: 4 captures run already");
}

TEST_F(SessionTapTest, IsForThoseWhoMaySeeTheMemoryOfAll) {
    constexpr uid_t kOther = 4711;
    Serve();
    EXPECT_EQ(Ask(Connect(kOther)).header.errCode, uint32_t{EACCES});
    SetPolicy("memory anyone\n");
    const host::Frame refused = Ask(Connect(kOther));
    EXPECT_EQ(refused.header.errCode, uint32_t{EACCES});
    EXPECT_EQ(host::ErrorText(refused.payload),
              "TarnHostRuntime.Capture: denied to user 4711, to whom the policy's memory-of-others is not allowed: a "
              "capture has the calls of all users");
    SetPolicy("memory anyone\nmemory-of-others anyone\n");
    Captured(Connect(kOther));
}

} // namespace
