// What a server says of itself, and how it counts.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <future>
#include <random>
#include <set>

#include "host/osal/log.h"
#include "host/runtime/catalogue.h"
#include "host/runtime/server.h"
#include "host/runtime/statistics.h"
#include "host/runtime/status.h"
#include "kit.h"
#include "manual_clocks.h"
#include "peer.h"
#include "served.h"
#include "tarn_sysdiag/host/reply.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace {

using namespace std::chrono_literals;
constexpr const char *kTarnd = "TarnSysdiagTarnd";

// --- Latencies

TEST(Histogram, PercentilesAreWithinTenPercent) {
    std::mt19937_64 random(5);
    for (const double scale : {2e3, 5e4, 3e6, 4e9}) {
        host::Histogram histogram;
        std::vector<double> all;
        std::lognormal_distribution<double> spread(0, 0.8);
        for (int i = 0; i < 20000; ++i) {
            const auto value = std::chrono::nanoseconds(std::llround(scale * spread(random)));
            all.push_back(static_cast<double>(std::max<int64_t>(value.count(), 1024)));
            histogram.Add(value);
        }
        std::sort(all.begin(), all.end());
        for (const double share : {0.01, 0.5, 0.9, 0.99, 0.999}) {
            const double exact = all[static_cast<size_t>(share * static_cast<double>(all.size()))];
            EXPECT_NEAR(static_cast<double>(histogram.Percentile(share).count()), exact, 0.1 * exact)
                << scale << ' ' << share;
        }
        EXPECT_EQ(static_cast<double>(histogram.Max().count()), all.back());
    }
}

TEST(Histogram, EndsOfItsRange) {
    host::Histogram histogram;
    EXPECT_EQ(histogram.Percentile(0.5), 0ns);
    histogram.Add(-1ns);
    histogram.Add(0ns);
    EXPECT_EQ(histogram.Percentile(0.99), 0ns) << "never beyond the longest";
    histogram.Add(24h);
    EXPECT_EQ(histogram.Max(), 24h);
    EXPECT_GT(histogram.Percentile(1), 15min);
}

TEST(Histogram, CountsBelowBounds) {
    host::Histogram histogram;
    for (const auto time : std::initializer_list<std::chrono::nanoseconds>{1ns, 4095ns, 4096ns, 10ms, 10ms, 24h}) {
        histogram.Add(time);
    }
    EXPECT_EQ(histogram.Sum(), 8192ns + 20ms + 24h);
    const auto bounds = histogram.Below();
    EXPECT_EQ(bounds[0].below, 4096ns);
    EXPECT_EQ(bounds[0].count, 2U);
    EXPECT_EQ(bounds[1].count, 3U);
    for (size_t i = 1; i < bounds.size(); ++i) {
        EXPECT_GT(bounds[i].below, bounds[i - 1].below);
        EXPECT_GE(bounds[i].count, bounds[i - 1].count);
        EXPECT_EQ(bounds[i].count >= 5, bounds[i].below > 10ms) << bounds[i].below.count();
    }
    EXPECT_EQ(bounds.back().count, 6U);
    EXPECT_EQ(bounds.back().below, std::chrono::nanoseconds::max());
}

TEST(Reasons, EachHasANameOfItsOwnAndAMeaning) {
    std::set<std::string> names;
    for (size_t i = 0; i < static_cast<size_t>(host::Reason::kEnd_); ++i) {
        const host::ReasonText &text = host::TextOf(static_cast<host::Reason>(i));
        EXPECT_TRUE(names.insert(text.name).second) << text.name;
        EXPECT_FALSE(std::string(text.meaning).empty());
    }
}

// --- A server asked

class StatusTest : public testing::Test {
protected:
    StatusTest() {
        host::Log().set_level(host::LogLevel::kOff);
        client_.Configure({.runDir = dir_.Path()});
        server_ = std::make_unique<host::Server>(host::ServerOptions{.runDir = dir_.Path(),
                                                                     .workers = 3,
                                                                     .clocks = &clocks_,
                                                                     .describe =
                                                                         [this] {
                                                                             ++descriptions_;
                                                                             return description_;
                                                                         },
                                                                     .timezone = [this] { return timezone_; }});
        server_->AddService(__module_spec_TarnSysdiagTarnd);
        server_->AddService(served_module_spec_TarnSysdiagAgent);
        server_->Start();
    }
    ~StatusTest() override {
        server_.reset();
        served::Reset();
        host::Log().set_level(host::LogLevel::kInfo);
    }

    host::ServerStatus Status(const char *service = kTarnd) {
        host::ServerStatus status;
        const host::CallOutcome outcome = host::AskStatus(client_, service, 0, status, 10s);
        EXPECT_TRUE(outcome.Ok()) << outcome.text;
        return status;
    }

    host::MethodStatus Method(const std::string &name) {
        const host::ServerStatus status = Status();
        for (const host::ServiceStatus &service : status.services) {
            for (const host::MethodStatus &method : service.methods) {
                if (method.name == name) {
                    return method;
                }
            }
        }
        ADD_FAILURE() << name;
        return {};
    }

    uint64_t Refused(const std::string &name) {
        for (const host::NamedValue &value : Status().refused) {
            if (value.name == name) {
                return value.value;
            }
        }
        ADD_FAILURE() << name;
        return 0;
    }

    host::CallOutcome AskOnline() {
        const Tarn_sys_diag_PidIsOnlineInput input{7};
        return client_.Call(kTarnd, 0, "PidIsOnline", velto::kTypeHash<Tarn_sys_diag_PidIsOnlineInput>,
                            kit::Encode<Unit>(input), 10s);
    }

    kit::TempDir dir_;
    kit::ManualClocks clocks_; // the server's
    std::string description_ = "{}", timezone_;
    std::atomic<unsigned> descriptions_ = 0;
    host::Client client_;
    std::unique_ptr<host::Server> server_;
};

TEST_F(StatusTest, EveryMethodOfTheServedServicesIsThere) {
    const host::ServerStatus status = Status();
    ASSERT_EQ(status.services.size(), 2U);
    size_t count = 0;
    for (const host::ServiceStatus &service : status.services) {
        for (const host::MethodStatus &method : service.methods) {
            const host::MethodInfo *const known = host::FindMethod(service.name, method.name);
            ASSERT_NE(known, nullptr) << method.name;
            EXPECT_EQ(method.index, known->index);
            EXPECT_EQ(method.request, known->request);
            EXPECT_EQ(method.response, known->response);
            EXPECT_EQ(method.requestHash, known->requestHash);
            EXPECT_EQ(method.responseHash, known->responseHash);
            EXPECT_EQ(method.calls, 0U);
            ++count;
        }
    }
    EXPECT_EQ(count, std::count_if(host::Catalogue().begin(), host::Catalogue().end(), [](const auto &method) {
                  return method.service == kTarnd || method.service == "TarnSysdiagAgent";
              }));
    EXPECT_FALSE(status.limits.empty());
}

TEST_F(StatusTest, CallsErrorsAndLatenciesAreCounted) {
    served::On("PidIsOnline", [this](const void *, void *replyCtx) {
        clocks_.Advance(20ms);
        Tarn_sys_diag_PidIsOnlineOuput online{1, 1};
        return TarnHost_Reply(replyCtx, &online);
    });
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(AskOnline().Ok());
    }
    served::On("PidIsOnline", [](const void *, void *) { return 3U; });
    EXPECT_EQ(AskOnline().status, 3U);
    const host::MethodStatus method = Method("PidIsOnline");
    EXPECT_EQ(method.calls, 6U);
    EXPECT_EQ(method.errors, 1U);
    EXPECT_EQ(method.cancelled, 0U);
    EXPECT_NEAR(static_cast<double>(method.p50.count()), 20e6, 0.06 * 20e6);
    EXPECT_GE(method.p99, method.p50);
    EXPECT_EQ(method.max, 20ms);
    EXPECT_EQ(method.sum, 100ms) << "the failed call took no time of the server's clock";
    ASSERT_FALSE(method.below.empty());
    EXPECT_EQ(method.below.front().calls, 1U);
    EXPECT_EQ(method.below.back().calls, 6U);
    EXPECT_EQ(Method("GetHugePagesInfo").calls, 0U);
}

TEST_F(StatusTest, ACallThatItsCallerGaveUpCountsAsCancelled) {
    std::promise<void> begun;
    served::On("PidIsOnline", [&](const void *, void *replyCtx) {
        begun.set_value();
        EXPECT_TRUE(kit::Eventually([&] { return TarnHost_Cancelled(replyCtx) == ECANCELED; }));
        return 3U;
    });
    {
        const peer::RawPeer caller(host::Directory(dir_.Path()).Socket(kTarnd, 0));
        caller.Send(peer::OnlineRequest(1));
        begun.get_future().wait();
    }
    EXPECT_TRUE(kit::Eventually([&] { return Method("PidIsOnline").cancelled == 1; }));
    EXPECT_EQ(Method("PidIsOnline").calls, 1U);
    EXPECT_EQ(Method("PidIsOnline").errors, 0U);
}

TEST_F(StatusTest, RefusalsAreCounted) {
    EXPECT_EQ(client_.Call(kTarnd, 0, "Nothing", 1, {}, 10s).errCode, uint32_t{ENOENT});
    EXPECT_EQ(client_.Call(kTarnd, 0, "PidIsOnline", 1, {}, 10s).errCode, uint32_t{EPROTOTYPE});
    EXPECT_EQ(client_.Call(kTarnd, 0, "PidIsOnline", 1, {}, 10s).errCode, uint32_t{EPROTOTYPE});
    EXPECT_EQ(Refused("unknown"), 1U);
    EXPECT_EQ(Refused("type_mismatch"), 2U);
}

TEST_F(StatusTest, HealthTellsWhatIsGoingOn) {
    std::atomic<bool> go = false;
    served::On("PidIsOnline", [&](const void *, void *) {
        EXPECT_TRUE(kit::Eventually([&] { return go.load(); }));
        return 3U;
    });
    std::thread caller([&] { AskOnline(); });
    host::ServerHealth health;
    EXPECT_TRUE(kit::Eventually([&] {
        EXPECT_TRUE(host::AskHealth(client_, "TarnSysdiagAgent", 0, health, 10s).Ok());
        return health.busy == 2; // the one that waits, and this one
    }));
    EXPECT_EQ(health.state, "serving");
    EXPECT_EQ(health.pid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(health.workers, 3U);
    EXPECT_EQ(health.requests, 2U);
    EXPECT_EQ(health.connections, 2U);
    const auto before = health.uptime;
    clocks_.Advance(5s);
    EXPECT_TRUE(host::AskHealth(client_, kTarnd, 0, health, 10s).Ok());
    EXPECT_EQ(health.uptime, before + 5s);
    go = true;
    caller.join();
}

TEST_F(StatusTest, HealthTellsTheZoneAsItIsNow) {
    for (const std::string zone : {"", "<CET>-1<CEST>,M3.5.0,M10.5.0/3"}) {
        timezone_ = zone;
        host::ServerHealth health;
        EXPECT_TRUE(host::AskHealth(client_, kTarnd, 0, health, 10s).Ok());
        EXPECT_EQ(health.timezone, zone);
    }
}

TEST_F(StatusTest, ADescriptionIsMadeWhenItIsAskedForAndOnce) {
    EXPECT_EQ(descriptions_, 0U);
    description_ = std::string(1 << 20, ' ');
    for (const char *service : {kTarnd, "TarnSysdiagAgent", kTarnd}) {
        std::string description;
        EXPECT_TRUE(host::AskDescription(client_, service, 0, description, 10s).Ok());
        EXPECT_EQ(description, description_);
        EXPECT_EQ(descriptions_, 1U);
    }
}

TEST_F(StatusTest, AServerMayHaveNoDescription) {
    description_ = "";
    std::string description;
    const host::CallOutcome outcome = host::AskDescription(client_, kTarnd, 0, description, 10s);
    EXPECT_EQ(outcome.errCode, uint32_t{ENOENT});
    EXPECT_EQ(outcome.text, "TarnHostRuntime.Describe: this server does not describe its services");
}

TEST_F(StatusTest, AnUnknownQuestionIsRefused) {
    const host::CallOutcome outcome =
        client_.Call({.service = host::kRuntimeService, .method = "Weather", .socketOf = kTarnd});
    EXPECT_EQ(outcome.errCode, uint32_t{ENOENT});
    EXPECT_EQ(outcome.text,
              "TarnHostRuntime.Weather: the runtime's own service has Health, Status, Describe and Capture");
}

} // namespace
