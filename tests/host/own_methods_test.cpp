// What a program adds to the runtime's own service: questions that are answered at once, or when there is news.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <future>
#include <sstream>

#include "eventually.h"
#include "host/runtime/status.h"
#include "served_test.h"

namespace {

using namespace std::chrono_literals;
using served::kTarnd;

// Answers a question with what it knows; one that asks for "more" waits for a minute while it knows nothing.
class Knowledge final : public host::OwnMethods {
public:
    bool Has(std::string_view method) const override { return method == "Events"; }
    Told Tell(const Question &question) const override {
        const host::MutexLock lock(mutex_);
        ++asked_;
        if (question.text == "nonsense") {
            throw std::system_error(EINVAL, std::generic_category(), "no question");
        }
        if (question.text == "may") {
            return {question.mayCall("GetExceptionInfo") ? "yes" : "no"};
        }
        return {known_.empty() ? "nothing" : known_, known_.empty() && question.text == "more" ? 1min : 0ms};
    }
    void OnNews(std::function<void()> tell) override {
        const host::MutexLock lock(mutex_);
        tell_ = std::move(tell);
    }

    void Learn(const std::string &news) {
        const host::MutexLock lock(mutex_);
        known_ = news;
        if (tell_) {
            tell_();
        }
    }
    int Asked() const {
        const host::MutexLock lock(mutex_);
        return asked_;
    }
    bool IsFollowed() const {
        const host::MutexLock lock(mutex_);
        return tell_ != nullptr;
    }

private:
    mutable host::Mutex mutex_;
    mutable int asked_ TARN_GUARDED_BY(mutex_) = 0;
    std::string known_ TARN_GUARDED_BY(mutex_);
    std::function<void()> tell_ TARN_GUARDED_BY(mutex_);
};

class OwnMethodsTest : public served::ServerTest {
protected:
    OwnMethodsTest() {
        MakeServer({.workers = 1, .ownMethods = &knowledge_});
        server_->Start();
    }
    ~OwnMethodsTest() override { server_.reset(); } // before what it asks

    static host::CallRequest RequestOf(const std::string &text, std::chrono::milliseconds deadline) {
        return {.service = host::kRuntimeService,
                .method = "Events",
                .request = {reinterpret_cast<const uint8_t *>(text.data()), text.size()},
                .deadline = deadline,
                .socketOf = kTarnd};
    }
    static std::string TextOf(const host::CallOutcome &outcome) {
        return outcome.Ok() ? std::string(outcome.bytes.begin(), outcome.bytes.end()) : outcome.text;
    }
    std::string Ask(const std::string &text) { return TextOf(client_.Call(RequestOf(text, 10s))); }

    struct Asked {
        uint64_t call;
        std::future<std::string> answer;
    };
    // Returns when the server has it.
    Asked AskLater(const std::string &text, std::chrono::milliseconds deadline = 10min) {
        const int before = knowledge_.Asked();
        auto promise = std::make_shared<std::promise<std::string>>();
        Asked asked{0, promise->get_future()};
        asked.call = client_.CallAsync(RequestOf(text, deadline),
                                       [promise](host::CallOutcome &&outcome) { promise->set_value(TextOf(outcome)); });
        EXPECT_TRUE(kit::Eventually([&] { return knowledge_.Asked() > before; }));
        return asked;
    }
    static bool IsWaiting(const Asked &asked) { return asked.answer.wait_for(0s) == std::future_status::timeout; }

    Knowledge knowledge_;
};

TEST_F(OwnMethodsTest, AnswersAtOnceWhatItKnows) {
    EXPECT_EQ(Ask(""), "nothing");
    knowledge_.Learn("something");
    EXPECT_EQ(Ask("more"), "something");
    EXPECT_EQ(Ask("nonsense"), "TarnHostRuntime.Events: no question: Invalid argument");
}

TEST_F(OwnMethodsTest, WaitsForNewsWithoutAThread) {
    Asked first = AskLater("more"), second = AskLater("more");
    EXPECT_EQ(Ask(""), "nothing") << "there is but one worker";
    EXPECT_TRUE(IsWaiting(first));
    knowledge_.Learn("news");
    EXPECT_EQ(first.answer.get(), "news");
    EXPECT_EQ(second.answer.get(), "news");
}

TEST_F(OwnMethodsTest, AnswersWhenItHasWaitedForLong) {
    Asked asked = AskLater("more");
    clocks_.Advance(1min);
    ASSERT_TRUE(kit::Eventually([&] {
        server_->RunDue();
        return !IsWaiting(asked);
    }));
    EXPECT_EQ(asked.answer.get(), "nothing");
}

TEST_F(OwnMethodsTest, AnswersWhenTheServerStops) {
    Asked asked = AskLater("more");
    ASSERT_TRUE(kit::Eventually([&] { return Ask("") == "nothing"; }));
    EXPECT_TRUE(server_->Stop());
    EXPECT_EQ(asked.answer.get(), "nothing");
    EXPECT_FALSE(knowledge_.IsFollowed());
}

TEST_F(OwnMethodsTest, ForgetsWhoHasGivenUp) {
    Asked asked = AskLater("more");
    client_.Cancel(asked.call);
    EXPECT_NE(asked.answer.get(), "nothing");
    const auto pending = [&] {
        host::ServerHealth health;
        EXPECT_TRUE(AskHealth(client_, kTarnd, 0, health, 10s).Ok());
        return health.requests - 1; // but for this one
    };
    EXPECT_TRUE(kit::Eventually([&] { return pending() == 0; }));
    knowledge_.Learn("news");
    EXPECT_EQ(Ask(""), "news");
}

TEST_F(OwnMethodsTest, SaysWhatTheCallerMayCall) {
    EXPECT_EQ(Ask("may"), "yes");
    std::istringstream text("memory nobody\n");
    server_->SetPolicy(host::Policy::Parse(text, "policy"));
    EXPECT_EQ(Ask("may"), "no");
    std::istringstream none("Events nobody\n");
    server_->SetPolicy(host::Policy::Parse(none, "policy"));
    EXPECT_NE(Ask("").find("denied to user"), std::string::npos);
}

} // namespace
