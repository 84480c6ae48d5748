// A connection by itself, on the test's thread: what the loop would report is said by the test.
#include "host/runtime/link.h"

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <functional>
#include <set>

#include "host/osal/log.h"
#include "host/runtime/request_states.h"
#include "manual_clocks.h"

namespace {

using namespace std::chrono_literals;
using host::LinkState;
using host::RequestState;

// --- The tables

template <class Table>
void ExpectSound(const Table &table, const std::set<std::string_view> &ends) {
    std::set<std::string_view> names;
    uint32_t reached = 1; // the first is where a machine begins
    for (size_t pass = 0; pass < table.rows.size(); ++pass) {
        for (const auto &row : table.rows) {
            reached |= (reached >> static_cast<unsigned>(row.state) & 1) != 0 ? row.next : 0;
        }
    }
    for (const auto &row : table.rows) {
        EXPECT_TRUE(names.insert(row.name).second) << row.name;
        EXPECT_FALSE(table.Allows(row.state, row.state)) << row.name;
        EXPECT_EQ(row.next == 0, ends.count(row.name) == 1) << row.name;
    }
    EXPECT_EQ(reached, (1U << table.rows.size()) - 1) << "every state can be reached";
}

TEST(States, EachCanBeReachedAndLeftButTheLast) {
    ExpectSound(host::kLinkStates, {"ended"});
    ExpectSound(host::kRequestStates, {"answered", "dropped"});
}

TEST(States, NothingIsReadOnceTheEndHasBegun) {
    for (const LinkState from : {LinkState::kDraining, LinkState::kClosed, LinkState::kEnded}) {
        for (const LinkState to :
             {LinkState::kWaiting, LinkState::kReading, LinkState::kReadingMore, LinkState::kPaused}) {
            EXPECT_FALSE(host::kLinkStates.Allows(from, to));
        }
    }
}

TEST(States, AnAbandonedRequestIsNotAnswered) {
    EXPECT_FALSE(host::kRequestStates.Allows(RequestState::kAbandoned, RequestState::kAnswered));
    EXPECT_FALSE(host::kRequestStates.Allows(RequestState::kWaiting, RequestState::kReturned));
}

TEST(StatesDeathTest, AMoveThatTheTableLacksEndsTheProgram) {
    EXPECT_DEATH(host::kLinkStates.Check(17, LinkState::kClosed, LinkState::kWaiting),
                 "connection 17: closed -> waiting, a move that its table lacks");
}

// What the compiler would refuse, where it knows.
void ReadTwice() TARN_NO_THREAD_SAFETY_ANALYSIS {
    host::ReaderRole role;
    role.Enter();
    role.Enter();
}

void LeaveUnread() TARN_NO_THREAD_SAFETY_ANALYSIS {
    host::ReaderRole().Leave();
}

TEST(StatesDeathTest, TheReadersRoleIsOneThreads) {
    EXPECT_DEATH(ReadTwice(), "reader");
    EXPECT_DEATH(LeaveUnread(), "reader");
}

// --- A connection

std::vector<uint8_t> FrameOf(uint64_t id, size_t payload = 0) {
    host::FrameHeader header;
    header.id = id;
    return host::MakeFrame(header, std::vector<uint8_t>(payload, static_cast<uint8_t>(id)));
}

class TestLink final : public host::Link {
public:
    using Link::GetProgress;
    using Link::Link;

    void Report(uint32_t events) { static_cast<host::Pollable &>(*this).OnReady(events); }

    std::vector<uint64_t> taken; // the frames' numbers
    size_t takes = 0, processed = 0, bad = 0, ended = 0;
    bool mayRead = true;
    size_t mayQueue = SIZE_MAX, askedToQueue = 0;
    std::function<void()> onTake = [] {};

private:
    void Take(std::span<host::Frame> frames, Clock::time_point) override {
        ++takes;
        for (const host::Frame &frame : frames) {
            taken.push_back(frame.header.id);
        }
        onTake();
    }
    void OnBad(const host::FrameParser &) override {
        ++bad;
        CloseWhenSent();
    }
    bool MayRead() override { return mayRead; }
    bool MayQueue(size_t bytes) override {
        askedToQueue = bytes;
        return bytes <= mayQueue;
    }
    void Process() override { ++processed; }
    void OnEnd() override { ++ended; }
};

class LinkTest : public testing::Test {
protected:
    LinkTest() {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        peer_ = host::Descriptor(ends[1]);
        link_ = std::make_shared<TestLink>(loop_, host::Descriptor(ends[0]), 1 << 20);
        EXPECT_TRUE(link_->Open());
    }

    ~LinkTest() override {
        link_->Close();
        RunTasks();
        EXPECT_EQ(link_->ended, 1U);
    }

    // To be called once, as the last.
    void RunTasks() {
        loop_.Stop();
        loop_.Run();
    }

    void Write(std::span<const uint8_t> bytes) const {
        EXPECT_EQ(send(peer_.Fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }

    // All that is there, and whether the end is.
    std::vector<uint8_t> ReadAll(bool &end) const {
        std::vector<uint8_t> all;
        uint8_t buffer[65536];
        ssize_t count;
        while ((count = recv(peer_.Fd(), buffer, sizeof buffer, MSG_DONTWAIT)) > 0) {
            all.insert(all.end(), buffer, buffer + count);
        }
        end = count == 0;
        return all;
    }

    // So much that not all of it finds room in the socket. Returns what waits.
    size_t Fill(uint64_t id) {
        EXPECT_TRUE(link_->Send(FrameOf(id, 1 << 20)));
        return link_->GetProgress().unsentBytes;
    }

    kit::ManualClocks clocks_;
    host::Loop loop_{clocks_};
    host::Descriptor peer_;
    std::shared_ptr<TestLink> link_;
};

TEST_F(LinkTest, AFrameMayComeInPieces) {
    const std::vector<uint8_t> frame = FrameOf(1, 100);
    Write(std::span(frame).first(50));
    const auto begun = clocks_.SteadyNow();
    link_->Report(EPOLLIN);
    EXPECT_TRUE(link_->taken.empty());
    EXPECT_EQ(link_->GetProgress().frameSince, begun);
    clocks_.Advance(1s);
    Write(std::span(frame).subspan(50, 100));
    link_->Report(EPOLLIN);
    EXPECT_EQ(link_->GetProgress().frameSince, begun);
    EXPECT_EQ(link_->GetProgress().lastRead, begun + 1s);
    EXPECT_EQ(link_->processed, 0U);
    clocks_.Advance(1s);
    Write(std::span(frame).subspan(150));
    link_->Report(EPOLLIN);
    EXPECT_EQ(link_->taken, (std::vector<uint64_t>{1}));
    EXPECT_EQ(link_->GetProgress().frameSince, std::nullopt);
    EXPECT_EQ(link_->GetProgress().lastRead, begun + 2s);
    EXPECT_EQ(link_->processed, 1U);
}

TEST_F(LinkTest, TheTimeOfAFrameBeginsWithItsFirstByte) {
    std::vector<uint8_t> bytes = FrameOf(1);
    const std::vector<uint8_t> second = FrameOf(2);
    bytes.insert(bytes.end(), second.begin(), second.begin() + 1);
    clocks_.Advance(1s);
    Write(bytes);
    link_->Report(EPOLLIN);
    EXPECT_EQ(link_->taken, (std::vector<uint64_t>{1}));
    EXPECT_EQ(link_->GetProgress().frameSince, clocks_.SteadyNow());
}

TEST_F(LinkTest, AllFramesOfAReadAreTakenAtOnce) {
    std::vector<uint8_t> bytes;
    for (uint64_t id = 1; id <= 5; ++id) {
        const std::vector<uint8_t> frame = FrameOf(id, 10);
        bytes.insert(bytes.end(), frame.begin(), frame.end());
    }
    Write(bytes);
    link_->Report(EPOLLIN);
    EXPECT_EQ(link_->taken, (std::vector<uint64_t>{1, 2, 3, 4, 5}));
    EXPECT_EQ(link_->takes, 1U);
}

TEST_F(LinkTest, NothingIsReadWhileItIsPaused) {
    link_->mayRead = false;
    std::vector<uint8_t> bytes = FrameOf(1);
    bytes.push_back('T');
    Write(bytes);
    link_->Report(EPOLLIN);
    EXPECT_EQ(link_->GetProgress().frameSince, std::nullopt) << "that no more is read is not the peer's fault";
    Write(std::span<const uint8_t>(FrameOf(2)).subspan(1));
    link_->Report(EPOLLIN);
    EXPECT_EQ(link_->taken, (std::vector<uint64_t>{1}));
    clocks_.Advance(1min);
    link_->mayRead = true;
    link_->ReadOn();
    EXPECT_EQ(link_->GetProgress().frameSince, clocks_.SteadyNow()) << "the peer has its time anew";
    link_->Report(EPOLLIN);
    EXPECT_EQ(link_->taken, (std::vector<uint64_t>{1, 2}));
}

TEST_F(LinkTest, ReadOnDoesNothingUnlessItIsPaused) {
    link_->onTake = [this] { link_->ReadOn(); };
    Write(FrameOf(1));
    link_->Report(EPOLLIN);
    link_->ReadOn();
    Write(FrameOf(2));
    link_->Report(EPOLLIN);
    EXPECT_EQ(link_->taken, (std::vector<uint64_t>{1, 2}));
}

TEST_F(LinkTest, APeerThatIsGoneIsSeenWhileItIsPaused) {
    link_->mayRead = false;
    Write(FrameOf(1));
    link_->Report(EPOLLIN);
    peer_ = host::Descriptor();
    link_->Report(EPOLLIN | EPOLLRDHUP);
    EXPECT_FALSE(link_->GetProgress().isEnding) << "it may still take answers";
    link_->Report(EPOLLHUP);
    EXPECT_TRUE(link_->GetProgress().isEnding);
}

TEST_F(LinkTest, WhatAPeerSentBeforeItsEndIsRead) {
    Write(FrameOf(1));
    peer_ = host::Descriptor();
    link_->Report(EPOLLIN | EPOLLRDHUP | EPOLLHUP);
    EXPECT_EQ(link_->taken, (std::vector<uint64_t>{1}));
    EXPECT_EQ(link_->ended, 0U);
    link_->Report(EPOLLIN | EPOLLRDHUP | EPOLLHUP);
    EXPECT_EQ(link_->ended, 1U);
    EXPECT_FALSE(link_->Send(FrameOf(2)));
}

TEST_F(LinkTest, TheEndOfTheConnectionIsReadInTheMiddleOfAFrame) {
    Write(std::span<const uint8_t>(FrameOf(1)).first(20));
    peer_ = host::Descriptor();
    link_->Report(EPOLLIN | EPOLLRDHUP | EPOLLHUP); // is reported once only
    EXPECT_EQ(link_->ended, 1U);
}

TEST_F(LinkTest, WhileOneThreadReadsNoOtherDoes) {
    link_->onTake = [this] {
        if (link_->takes == 1) {
            Write(FrameOf(2));
            link_->Report(EPOLLIN);
            EXPECT_EQ(link_->takes, 1U);
        }
    };
    Write(FrameOf(1));
    link_->Report(EPOLLIN);
    EXPECT_EQ(link_->taken, (std::vector<uint64_t>{1}));
    link_->Report(EPOLLIN); // the loop is asked to say it again
    EXPECT_EQ(link_->taken, (std::vector<uint64_t>{1, 2}));
}

TEST_F(LinkTest, TheEndIsToldWhenNobodyReadsAnyMore) {
    link_->onTake = [this] {
        link_->Close();
        RunTasks();
        EXPECT_EQ(link_->ended, 0U);
    };
    Write(FrameOf(1));
    link_->Report(EPOLLIN);
    EXPECT_EQ(link_->ended, 1U);
}

TEST_F(LinkTest, WhatIsNoFrameEndsTheReading) {
    const uint8_t garbage[] = "GET / HTTP/1.1\r\n";
    Write(garbage);
    link_->Report(EPOLLIN);
    EXPECT_EQ(link_->bad, 1U);
    EXPECT_TRUE(link_->GetProgress().isEnding);
    link_->Report(EPOLLIN);
    EXPECT_EQ(link_->bad, 1U);
}

// --- Sending

TEST_F(LinkTest, WhatTheSocketDoesNotTakeWaits) {
    const auto begun = clocks_.SteadyNow();
    const size_t waits = Fill(1);
    ASSERT_GT(waits, 0U);
    clocks_.Advance(1s);
    const std::vector<uint8_t> second = FrameOf(2, 10);
    EXPECT_TRUE(link_->Send(second));
    EXPECT_EQ(link_->askedToQueue, waits + second.size());
    EXPECT_EQ(link_->GetProgress().unsentBytes, waits + second.size());
    EXPECT_EQ(link_->GetProgress().unsentSince, begun);
    EXPECT_TRUE(link_->HasUnsent());

    clocks_.Advance(1s);
    std::vector<uint8_t> received;
    bool end = false;
    for (size_t before = SIZE_MAX; link_->HasUnsent();) {
        const std::vector<uint8_t> part = ReadAll(end);
        received.insert(received.end(), part.begin(), part.end());
        link_->Report(EPOLLOUT);
        const size_t now = link_->GetProgress().unsentBytes;
        ASSERT_LT(now, before);
        before = now;
    }
    const std::vector<uint8_t> rest = ReadAll(end);
    received.insert(received.end(), rest.begin(), rest.end());
    std::vector<uint8_t> expected = FrameOf(1, 1 << 20);
    expected.insert(expected.end(), second.begin(), second.end());
    EXPECT_TRUE(received == expected);
    EXPECT_EQ(link_->GetProgress().unsentBytes, 0U);
    EXPECT_EQ(link_->GetProgress().unsentSince, begun + 2s) << "each message has its own time";
}

TEST_F(LinkTest, APeerForWhichTooMuchWouldWaitIsCutOff) {
    const size_t waits = Fill(1);
    const std::vector<uint8_t> next = FrameOf(2, 10);
    link_->mayQueue = waits + next.size();
    EXPECT_TRUE(link_->Send(next));
    EXPECT_FALSE(link_->Send(next));
    EXPECT_TRUE(link_->GetProgress().isEnding);
    EXPECT_EQ(link_->GetProgress().unsentBytes, 0U);
}

TEST_F(LinkTest, TheFirstMessageThatWaitsIsAskedForAsWell) {
    link_->mayQueue = 0;
    EXPECT_FALSE(link_->Send(FrameOf(1, 1 << 20)));
    EXPECT_TRUE(link_->GetProgress().isEnding);
}

TEST_F(LinkTest, ItIsClosedWhenAllIsSent) {
    Fill(1);
    link_->CloseWhenSent();
    link_->CloseWhenSent();
    Write(FrameOf(1));
    link_->Report(EPOLLIN);
    EXPECT_TRUE(link_->taken.empty());
    size_t received = 0;
    bool end = false;
    while (!end) {
        const size_t count = ReadAll(end).size();
        ASSERT_TRUE(end || count != 0);
        received += count;
        link_->Report(EPOLLOUT);
    }
    EXPECT_EQ(received, FrameOf(1, 1 << 20).size());
    EXPECT_FALSE(link_->Send(FrameOf(2)));
}

TEST_F(LinkTest, APeerThatIsGoneIsSeenWhileItDrains) {
    Fill(1);
    link_->CloseWhenSent();
    peer_ = host::Descriptor();
    link_->Report(EPOLLHUP);
    EXPECT_FALSE(link_->Send(FrameOf(2)));
}

TEST_F(LinkTest, WhatAPeerSentBeforeItWentIsReadThoughItTakesNothing) {
    Write(FrameOf(1));
    peer_ = host::Descriptor();
    EXPECT_TRUE(link_->Send(FrameOf(2))) << "the reader sees to the end";
    EXPECT_EQ(link_->GetProgress().unsentBytes, 0U);
    link_->Report(EPOLLIN | EPOLLHUP);
    EXPECT_EQ(link_->taken, (std::vector<uint64_t>{1}));
    link_->Report(EPOLLIN | EPOLLHUP);
    EXPECT_EQ(link_->ended, 1U);
}

TEST_F(LinkTest, APeerThatTakesNothingButStaysIsNotKept) {
    shutdown(peer_.Fd(), SHUT_RD);
    EXPECT_TRUE(link_->Send(FrameOf(1)));
    link_->Report(EPOLLIN | EPOLLHUP);
    EXPECT_EQ(link_->ended, 1U);
}

TEST_F(LinkTest, WhatWaitsForAPeerThatGoesIsDropped) {
    ASSERT_GT(Fill(1), 0U);
    peer_ = host::Descriptor();
    link_->Report(EPOLLOUT);
    EXPECT_EQ(link_->GetProgress().unsentBytes, 0U);
    link_->Report(EPOLLIN | EPOLLHUP);
    EXPECT_EQ(link_->ended, 1U);
}

TEST_F(LinkTest, ItsMovesAreInTheLog) {
    host::Log().set_level(host::LogLevel::kDebug);
    testing::internal::CaptureStderr();
    Write(FrameOf(1));
    link_->Report(EPOLLIN);
    link_->Close();
    const std::string log = testing::internal::GetCapturedStderr();
    host::Log().set_level(host::LogLevel::kInfo);
    const size_t reading = log.find(": waiting -> reading\n"), waiting = log.find(": reading -> waiting\n"),
                 closed = log.find(": waiting -> closed\n");
    EXPECT_LT(reading, waiting) << log;
    EXPECT_LT(waiting, closed) << log;
    EXPECT_NE(closed, std::string::npos) << log;
}

// --- The loop

TEST(Loop, RunsWhatIsDueByItsClockInTheOrderOfTime) {
    kit::ManualClocks clocks;
    host::Loop loop(clocks);
    std::string ran;
    const auto now = clocks.SteadyNow();
    loop.At(now + 2s, [&] { ran += "b"; });
    loop.At(now + 1s, [&] { ran += "a"; });
    const uint64_t cancelled = loop.At(now + 1s, [&] { ran += "x"; });
    loop.At(now + 3s, [&] { ran += "c"; });
    loop.CancelTimer(cancelled);
    loop.CancelTimer(cancelled);
    clocks.Advance(1s - 1ns);
    loop.RunDue();
    EXPECT_EQ(ran, "");
    clocks.Advance(1ns);
    loop.RunDue();
    EXPECT_EQ(ran, "a");
    clocks.Advance(2s);
    loop.RunDue();
    EXPECT_EQ(ran, "abc");
}

TEST(Loop, RunsAllTasksBeforeItEnds) {
    kit::ManualClocks clocks;
    host::Loop loop(clocks);
    int ran = 0;
    loop.Post([&] {
        ++ran;
        loop.Post([&] { ++ran; });
    });
    loop.Stop();
    loop.Run();
    EXPECT_EQ(ran, 2);
}

} // namespace
