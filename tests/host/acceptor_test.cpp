// A listening socket on the test's thread, with its time: what the loop would report is said by the test.
#include "host/runtime/acceptor.h"

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <future>
#include <thread>
#include <vector>

#include "descriptor_limit.h"
#include "manual_clocks.h"
#include "temp_dir.h"

namespace {

using namespace std::chrono_literals;

class AcceptorTest : public testing::Test {
protected:
    AcceptorTest() {
        acceptor_->Open();
        Connect();
        Report();
        EXPECT_EQ(admitted_.size(), 1);
        admitted_.clear();
    }

    void Connect() {
        host::Connected connected = transport_.Connect("Any", 0, host::Transport::Clock::now() + 20s);
        EXPECT_EQ(connected.error, 0);
        peers_.push_back(std::move(connected.socket));
    }
    void Report() const { static_cast<host::Pollable &>(*acceptor_).OnReady(EPOLLIN); }
    void Pass(std::chrono::milliseconds time) {
        clocks_.Advance(time);
        loop_.RunDue();
    }

    const kit::TempDir dir_;
    const host::Transport transport_{host::Directory(dir_.Path())};
    kit::ManualClocks clocks_;
    host::Loop loop_{clocks_};
    std::vector<host::Descriptor> peers_, admitted_;
    std::vector<std::string> warnings_;
    size_t refused_ = 0; // that could be told
    const std::shared_ptr<host::Acceptor> acceptor_ = std::make_shared<host::Acceptor>(
        loop_, transport_.Listen("Any", false), [this](host::Descriptor fd) { admitted_.push_back(std::move(fd)); },
        [this](const host::Descriptor &fd, const std::string &warning) {
            refused_ += fd ? 1 : 0;
            warnings_.push_back(warning);
        });
};

TEST_F(AcceptorTest, TakesAllThatWait) {
    Connect();
    Connect();
    Report();
    EXPECT_EQ(admitted_.size(), 2);
    Pass(1h);
    EXPECT_TRUE(warnings_.empty());
}

// No event tells of it: the connections have been reported, and descriptors that are free again are not.
TEST_F(AcceptorTest, TriesAgainByItselfWhenThereWereNoDescriptors) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's own check of virtual calls needs descriptors";
#endif
    Connect();
    Connect();
    {
        const kit::DescriptorLimit none(0);
        Report();
        ASSERT_EQ(warnings_.size(), 1);
        EXPECT_EQ(warnings_[0], acceptor_->Path().string() + ": accept: Too many open files");
        Pass(50ms);
        EXPECT_EQ(warnings_.size(), 2) << "there are none yet";
    }
    Pass(49ms);
    EXPECT_TRUE(admitted_.empty());
    Pass(1ms);
    EXPECT_EQ(admitted_.size(), 2);
    Pass(1h);
    EXPECT_EQ(warnings_.size(), 2);
}

// The process has as many as it may have open.
class AllDescriptors {
public:
    AllDescriptors() {
        for (host::Descriptor fd(dup(0)); fd; fd = host::Descriptor(dup(0))) {
            open_.push_back(std::move(fd));
        }
    }

private:
    const kit::DescriptorLimit limit_{64};
    std::vector<host::Descriptor> open_;
};

TEST_F(AcceptorTest, RefusesWhatWaitsWhenThereIsNoDescriptorButTheSpare) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's own check of virtual calls needs descriptors";
#endif
    Connect();
    Connect();
    Connect();
    {
        const AllDescriptors all;
        Report();
        Report();
        EXPECT_EQ(refused_, 3);
    }
    Connect();
    Report();
    EXPECT_EQ(admitted_.size(), 1);
    Pass(1h);
    EXPECT_EQ(warnings_.size(), 3) << "that none waits is no shortage";
}

// With the loop, which tells of each that comes.
TEST_F(AcceptorTest, TriesAgainOnceHoweverManyConnectionsWait) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's own check of virtual calls needs descriptors";
#endif
    constexpr size_t kWaiting = 5;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    acceptor_->Path().string().copy(address.sun_path, sizeof address.sun_path - 1);
    for (size_t i = 0; i < kWaiting; ++i) {
        peers_.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    }
    std::jthread thread([this] { loop_.Run(); });
    {
        const kit::DescriptorLimit none(0);
        for (size_t i = 0; i < kWaiting; ++i) {
            EXPECT_EQ(
                connect(peers_[peers_.size() - 1 - i].Fd(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
            std::promise<void> told; // what the loop has told before
            loop_.Post([&] { told.set_value(); });
            told.get_future().wait();
        }
        EXPECT_EQ(warnings_.size(), 1);
    }
    loop_.Stop();
    thread.join();
    Pass(50ms);
    EXPECT_EQ(admitted_.size(), kWaiting);
}

TEST_F(AcceptorTest, DoesNotTryAgainOnceItIsClosed) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's own check of virtual calls needs descriptors";
#endif
    Connect();
    {
        const kit::DescriptorLimit none(0);
        Report();
    }
    acceptor_->Close();
    Pass(1h);
    EXPECT_TRUE(admitted_.empty());
    EXPECT_EQ(warnings_.size(), 1);
}

} // namespace
