// The runtime over real sockets: the library's proxies and wrappers, and peers that misbehave.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/agent.h"
#include "tarn_sysdiag/types/tarnd.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <future>
#include <mutex>
#include <optional>

#include "descriptor_limit.h"
#include "host/osal/accounting.h"
#include "host/runtime/catalogue.h"
#include "host/runtime/pool.h"
#include "host/runtime/protocol.h"
#include "host/runtime/status.h"
#include "host/runtime/transport.h"
#include "peer.h"
#include "served_test.h"
#include "tarn_sysdiag/client/agent.h"
#include "tarn_sysdiag/server/tarnd_agent.h"

namespace {

using namespace std::chrono_literals;
using peer::OnlineRequest;
using peer::RawPeer;
using served::kTarnd;
using Online = Tarn_sys_diag_PidIsOnlineOuput;

template <class Record>
const Record &As(const void *request) {
    return *static_cast<const Record *>(request);
}

uint32_t AnswerOnline(const void *request, void *replyCtx) {
    Online online{As<Tarn_sys_diag_PidIsOnlineInput>(request).uiPid, 1};
    return TarnHost_Reply(replyCtx, &online);
}

// A server of all services.
class RuntimeTest : public served::ServerTest {
protected:
    RuntimeTest() {
        served::On("PidIsOnline", AnswerOnline);
        StartServer();
    }

    void StartServer(host::Limits limits = {}, std::chrono::milliseconds stopBound = 20s, unsigned workers = 4) {
        MakeServer({.workers = workers, .limits = limits, .stopBound = stopBound});
        server_->AddService(__module_spec_TarnSysdiagTarndAgent);
        server_->Start();
    }

    host::CallOutcome AskOnline(uint32_t pid = 7, std::chrono::milliseconds deadline = 10s) {
        const Tarn_sys_diag_PidIsOnlineInput input{pid};
        return Ask("PidIsOnline", input, deadline);
    }

    template <class Request>
    host::CallOutcome Ask(const char *method, const Request &request, std::chrono::milliseconds deadline = 10s) {
        return client_.Call(kTarnd, 0, method, velto::kTypeHash<Request>, kit::Encode<Unit>(request), deadline);
    }

    std::filesystem::path SocketOf(const char *service) const {
        return host::Directory(dir_.Path()).Socket(service, 0);
    }
};

// --- Exchanges of every shape

TEST_F(RuntimeTest, FixedReply) {
    const kit::Answer<Unit, Online> answer(AskOnline(4711));
    EXPECT_EQ(answer.Status(), 0U) << answer.Text();
    EXPECT_EQ(answer->uiPid, 4711U);
    EXPECT_EQ(answer->ucIsOnline, 1);
    EXPECT_EQ(served::Freed("PidIsOnline"), 1U);
}

TEST_F(RuntimeTest, VariableReply) {
    served::On("GetAllTidsByPid", [](const void *request, void *replyCtx) {
        uint32_t tids[] = {As<Tarn_sys_diag_Pid>(request).uiPid, 2, 3};
        Tarn_sys_diag_Tids reply{3, tids};
        return TarnHost_Reply(replyCtx, &reply);
    });
    const auto answer =
        kit::Call<Unit, Tarn_sys_diag_Tids>(client_, kTarnd, 0, "GetAllTidsByPid", Tarn_sys_diag_Pid{9});
    ASSERT_EQ(answer.Status(), 0U) << answer.Text();
    ASSERT_EQ(answer->uiTidNum, 3U);
    EXPECT_EQ(answer->puiTids[0], 9U);
    EXPECT_EQ(answer->puiTids[2], 3U);
    EXPECT_EQ(served::Freed("GetAllTidsByPid"), 1U);
}

TEST_F(RuntimeTest, OwningRequest) {
    served::On("GetTaskInfo", [](const void *request, void *replyCtx) {
        std::string text = std::string("task ") + As<Tarn_sys_diag_GetTaskInfoInput>(request).pcTaskName;
        Tarn_sys_diag_GetTaskInfoResult reply{text.data(), 5, nullptr};
        return TarnHost_Reply(replyCtx, &reply);
    });
    char name[] = "worker";
    const Tarn_sys_diag_GetTaskInfoInput input{1, 2, name, 3, 4};
    const auto answer = kit::Call<Unit, Tarn_sys_diag_GetTaskInfoResult>(client_, kTarnd, 0, "GetTaskInfo", input);
    ASSERT_EQ(answer.Status(), 0U) << answer.Text();
    EXPECT_STREQ(answer->pcTaskInfo, "task worker");
}

TEST_F(RuntimeTest, LargeRequest) {
    served::On("ZipLogFile", [](const void *request, void *replyCtx) {
        const auto &input = As<Tarn_sys_diag_ZiploginfoInput>(request);
        Tarn_sys_diag_Result reply{input.uiZipOption + static_cast<uint32_t>(strlen(input.szZipName))};
        return TarnHost_Reply(replyCtx, &reply);
    });
    Tarn_sys_diag_ZiploginfoInput input{};
    kit::Set(input.szZipName, "logs.zip");
    input.uiZipOption = 100;
    const auto answer = kit::Call<Unit, Tarn_sys_diag_Result>(client_, kTarnd, 0, "ZipLogFile", input);
    ASSERT_EQ(answer.Status(), 0U) << answer.Text();
    EXPECT_EQ(answer->uiResult, 108U);
}

TEST_F(RuntimeTest, MethodWithoutReplyIsAnsweredWhenItHasRun) {
    std::atomic<int> runs = 0;
    served::On("DetectTarndServerOnline", [&](const void *, void *) {
        ++runs;
        return 0U;
    });
    const host::CallOutcome outcome = Ask("DetectTarndServerOnline", Tarn_sys_diag_None{});
    EXPECT_TRUE(outcome.Ok()) << outcome.text;
    EXPECT_TRUE(outcome.bytes.empty());
    EXPECT_EQ(runs, 1);
}

TEST_F(RuntimeTest, OnewayRequestsRunInOrderAndBeforeLaterCalls) {
    std::mutex mutex;
    std::string seen;
    served::On("DBGCmdExecShowByTarnd", [&](const void *request, void *) {
        std::this_thread::yield(); // to whom would overtake
        const std::lock_guard lock(mutex);
        seen += As<Tarn_sys_diag_DbgCmdShowByTarndInput>(request).pcCmdStr;
        return 0U;
    });
    std::string expected;
    for (int i = 0; i < 50; ++i) {
        std::string word(1, static_cast<char>('a' + i % 26));
        expected += word;
        const Tarn_sys_diag_DbgCmdShowByTarndInput input{word.data(), 1};
        ASSERT_EQ((kit::Oneway<Unit>(client_, kTarnd, 0, "DBGCmdExecShowByTarnd", input)), 0U);
    }
    EXPECT_TRUE(AskOnline().Ok());
    const std::lock_guard lock(mutex);
    EXPECT_EQ(seen, expected);
}

TEST_F(RuntimeTest, MethodWithReplyMayBeCalledOneway) {
    EXPECT_EQ((kit::Oneway<Unit>(client_, kTarnd, 0, "PidIsOnline", Tarn_sys_diag_PidIsOnlineInput{1})), 0U);
    EXPECT_TRUE(AskOnline().Ok());
    EXPECT_EQ(served::Freed("PidIsOnline"), 2U);
}

TEST_F(RuntimeTest, ReplyOfManyMegabytes) {
    client_.Configure({.runDir = dir_.Path(), .limits = {.replyBytes = 16 << 20}});
    std::vector<uint32_t> tids(1'500'000);
    for (uint32_t i = 0; i < tids.size(); ++i) {
        tids[i] = i * 2654435761U;
    }
    served::On("GetAllTidsByPid", [&](const void *, void *replyCtx) {
        Tarn_sys_diag_Tids reply{static_cast<uint32_t>(tids.size()), tids.data()};
        return TarnHost_Reply(replyCtx, &reply);
    });
    const auto answer =
        kit::Call<Unit, Tarn_sys_diag_Tids>(client_, kTarnd, 0, "GetAllTidsByPid", Tarn_sys_diag_Pid{9});
    ASSERT_EQ(answer.Status(), 0U) << answer.Text();
    ASSERT_EQ(answer->uiTidNum, tids.size());
    EXPECT_EQ(memcmp(answer->puiTids, tids.data(), 4 * tids.size()), 0);
}

// --- The library's proxies

TEST_F(RuntimeTest, ProxyCallsAndWaits) {
    served::On("DBGCmdExecResultGet", [](const void *, void *replyCtx) {
        char text[] = "42 threads";
        Tarn_sys_diag_DiagResult reply{0, 42, text};
        return TarnHost_Reply(replyCtx, &reply);
    });
    const Tarn_sys_diag_DbgCmdResultGetInput input{};
    Tarn_sys_diag_DiagResult reply{};
    TarnHost_InvokeCtx ctx{static_cast<uint32_t>(getpid()), 10000};
    const IdlCallResult result = TarnSysdiagAgent_DBGCmdExecResultGet(&input, &reply, &ctx);
    ASSERT_EQ(result.uiErrCode, 0U) << TarnHost_LastError();
    EXPECT_EQ(result.uiStatus, 0U);
    EXPECT_EQ(reply.uiValue, 42U);
    EXPECT_STREQ(reply.szText, "42 threads");
    IdlCodecTable codec{};
    TarnSysdiagAgent_DBGCmdExecResultGetSetIdl(&codec);
    codec.pfnFreeUnpacked(&reply);
}

TEST_F(RuntimeTest, ProxyWithoutReply) {
    std::atomic<int> shows = 0;
    served::On("DBGCmdExecShow", [&](const void *request, void *) {
        shows += strcmp(As<Tarn_sys_diag_DbgCmdShowInput>(request).pcCmdStr, "threads") == 0 ? 1 : 100;
        return 0U;
    });
    char command[] = "threads";
    const Tarn_sys_diag_DbgCmdShowInput input{command};
    const IdlCallResult result = TarnSysdiagAgent_DBGCmdExecShow(&input, nullptr);
    EXPECT_EQ(result.uiErrCode, 0U) << TarnHost_LastError();
    EXPECT_EQ(shows, 1);
    EXPECT_EQ(TarnSysdiagAgent_DBGCmdExecShow_oneway(&input, nullptr), 0U);
    EXPECT_EQ(TarnSysdiagAgent_DBGCmdExecShow_async(&input, nullptr, nullptr, nullptr), 0U);
    EXPECT_TRUE(kit::Eventually([&] { return shows == 3; }));
}

TEST_F(RuntimeTest, ProxyIsToldTheMethodsStatusInWords) {
    const Tarn_sys_diag_DbgCmdResultGetInput input{};
    Tarn_sys_diag_DiagResult reply{};
    const IdlCallResult result = TarnSysdiagAgent_DBGCmdExecResultGet(&input, &reply, nullptr);
    EXPECT_EQ(result.uiStatus, 38U);
    EXPECT_EQ(result.uiErrCode, 0U);
    EXPECT_STREQ(TarnHost_LastError(), "TarnSysdiagAgent.DBGCmdExecResultGet: not implemented");
}

TEST_F(RuntimeTest, ProxyOfAProcessWithoutAgent) {
    const Tarn_sys_diag_DbgCmdResultGetInput input{};
    Tarn_sys_diag_DiagResult reply{};
    TarnHost_InvokeCtx ctx{999999999, 0};
    const IdlCallResult result = TarnSysdiagAgent_DBGCmdExecResultGet(&input, &reply, &ctx);
    EXPECT_EQ(result.uiStatus, 0U);
    EXPECT_EQ(result.uiErrCode, 22U);
    EXPECT_NE(std::string(TarnHost_LastError()).find("TarnSysdiagAgent of process 999999999"), std::string::npos);
}

// The library between a proxy's caller and the runtime is no place for exceptions: it would leave its message behind.
TEST_F(RuntimeTest, ProxyThrowsNothingWithoutDescriptors) {
    const rlim_t none = kit::OneMoreDescriptor() - 1;
    const Tarn_sys_diag_None request{};
    TarnHost_InvokeCtx ctx{static_cast<uint32_t>(getpid()), 1000};
    host::Client::Default().Shutdown();
    const kit::DescriptorLimit limit(none);
    IdlCallResult result{};
    EXPECT_NO_THROW(result = TarnSysdiagAgent_TarnDetectMemHostage(&request, &ctx));
    EXPECT_NE(result.uiErrCode, 0U);
    EXPECT_NO_THROW(EXPECT_NE(TarnSysdiagAgent_TarnDetectMemHostage_oneway(&request, &ctx), 0U));
}

// Counts callbacks of asynchronous proxies, by the error that they were given.
struct Callbacks {
    std::mutex mutex;
    std::condition_variable changed;
    std::map<uint32_t, int> byError;
    int withRecord = 0;
    int count = 0;

    static void Callback(const IdlCallResult *result, void *response, void *user) {
        auto &self = *static_cast<Callbacks *>(user);
        const std::lock_guard lock(self.mutex);
        ++self.byError[result->uiErrCode];
        self.withRecord += response != nullptr ? 1 : 0;
        ++self.count;
        self.changed.notify_all();
    }

    bool Wait(int expected) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, 20s, [&] { return count >= expected; });
    }
};

void AsyncResultGet(Callbacks &callbacks, uint32_t timeoutMs = 0) {
    const Tarn_sys_diag_DbgCmdResultGetInput input{};
    TarnHost_InvokeCtx ctx{0, timeoutMs};
    ASSERT_EQ(TarnSysdiagAgent_DBGCmdExecResultGet_async(&input, Callbacks::Callback, &callbacks, &ctx), 0U);
}

TEST_F(RuntimeTest, AsynchronousProxyCallsBackOnceWithTheRecord) {
    served::On("DBGCmdExecResultGet", [](const void *, void *replyCtx) {
        char text[] = "text that the runtime releases";
        Tarn_sys_diag_DiagResult reply{0, 42, text};
        return TarnHost_Reply(replyCtx, &reply);
    });
    Callbacks callbacks;
    for (int i = 0; i < 200; ++i) {
        AsyncResultGet(callbacks);
    }
    EXPECT_TRUE(callbacks.Wait(200));
    host::Client::Default().Shutdown();
    EXPECT_EQ(callbacks.count, 200);
    EXPECT_EQ(callbacks.withRecord, 200);
}

TEST_F(RuntimeTest, AsynchronousProxyIsToldOfAMethodsStatus) {
    Callbacks callbacks;
    AsyncResultGet(callbacks);
    EXPECT_TRUE(callbacks.Wait(1));
    EXPECT_EQ(callbacks.withRecord, 0);
    EXPECT_EQ(callbacks.byError[0], 1);
}

// Keeps requests of an agent's method unanswered. The method shares what it writes: it may run after the caller has
// given up, and the test with it.
class Unanswered {
public:
    Unanswered() {
        served::On("DBGCmdExecResultGet", [kept = kept_](const void *, void *replyCtx) {
            const std::lock_guard lock(kept->mutex);
            kept->contexts.push_back(replyCtx);
            return 0U;
        });
    }
    size_t Count() {
        const std::lock_guard lock(kept_->mutex);
        return kept_->contexts.size();
    }
    void *At(size_t i) {
        const std::lock_guard lock(kept_->mutex);
        return kept_->contexts.at(i);
    }

private:
    struct Kept {
        std::mutex mutex;
        std::vector<void *> contexts;
    };
    const std::shared_ptr<Kept> kept_ = std::make_shared<Kept>();
};

TEST_F(RuntimeTest, AsynchronousCallsEndOnceAtTheirDeadline) {
    Unanswered unanswered;
    Callbacks callbacks;
    for (int i = 0; i < 20; ++i) {
        AsyncResultGet(callbacks, 50);
    }
    EXPECT_TRUE(callbacks.Wait(20));
    host::Client::Default().Shutdown();
    EXPECT_EQ(callbacks.count, 20);
    EXPECT_EQ(callbacks.byError[ETIMEDOUT], 20);
}

TEST_F(RuntimeTest, AsynchronousCallsEndOnceAtShutdown) {
    Unanswered unanswered;
    Callbacks callbacks;
    for (int i = 0; i < 20; ++i) {
        AsyncResultGet(callbacks);
    }
    EXPECT_TRUE(kit::Eventually([&] { return unanswered.Count() == 20; }));
    host::Client::Default().Shutdown();
    EXPECT_EQ(callbacks.count, 20);
    EXPECT_EQ(callbacks.byError[ECANCELED], 20);
}

TEST_F(RuntimeTest, AsynchronousCallsEndOnceWhenTheServerEnds) {
    StartServer({}, 1ms);
    Unanswered unanswered;
    Callbacks callbacks;
    for (int i = 0; i < 20; ++i) {
        AsyncResultGet(callbacks);
    }
    EXPECT_TRUE(kit::Eventually([&] { return unanswered.Count() == 20; }));
    EXPECT_TRUE(server_->Stop());
    EXPECT_TRUE(callbacks.Wait(20));
    EXPECT_EQ(callbacks.count, 20);
    EXPECT_EQ(callbacks.byError[ECANCELED], 20);
}

TEST_F(RuntimeTest, AsynchronousCallToNobodyStillCallsBack) {
    const std::filesystem::path path = SocketOf("TarnSysdiagAgent");
    server_->Stop();
    std::ofstream(path).close();
    std::promise<host::CallOutcome> ended;
    client_.CallAsync({.service = "TarnSysdiagAgent", .method = "DBGCmdExecClean"},
                      [&](host::CallOutcome &&outcome) { ended.set_value(std::move(outcome)); });
    EXPECT_EQ(ended.get_future().get().errCode, uint32_t{ECONNREFUSED});
    std::filesystem::remove(path);
}

TEST_F(RuntimeTest, AsynchronousCallsRaceWithShutdown) {
    std::atomic<int> started = 0;
    std::atomic<int> ended = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                ++started;
                const std::vector<uint8_t> request = kit::Encode<Unit>(Tarn_sys_diag_PidIsOnlineInput{1});
                client_.CallAsync({.service = kTarnd,
                                   .method = "PidIsOnline",
                                   .requestHash = velto::kTypeHash<Tarn_sys_diag_PidIsOnlineInput>,
                                   .request = request},
                                  [&](host::CallOutcome &&) { ++ended; });
            }
        });
    }
    for (int i = 1; i <= 5; ++i) {
        kit::Await("the calls have started", [&] { return started >= 100 * i; });
        client_.Shutdown();
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    client_.Shutdown();
    EXPECT_EQ(ended, started);
}

// --- Callers that give up

// A method that works until nobody waits for it any more.
class Worker {
public:
    Worker() {
        served::On("PidIsOnline", [this](const void *, void *replyCtx) {
            EXPECT_EQ(TarnHost_Cancelled(replyCtx), 0U);
            EXPECT_EQ(TarnHost_Cancelled(nullptr), 0U);
            remaining_ = TarnHost_RemainingMs(nullptr);
            ++begun_;
            uint32_t why = 0;
            kit::Eventually([&] { return (why = TarnHost_Cancelled(replyCtx)) != 0; });
            why_ = why;
            Online online{1, 1};
            EXPECT_EQ(TarnHost_Reply(replyCtx, &online), 0U);
            EXPECT_EQ(TarnHost_Cancelled(replyCtx), uint32_t{EALREADY});
            EXPECT_EQ(TarnHost_RemainingMs(replyCtx), 0U);
            ++ended_;
            return 0U;
        });
    }
    void ExpectBegun() const {
        EXPECT_TRUE(kit::Eventually([&] { return begun_ == 1; }));
    }
    void ExpectEnded(uint32_t why) const {
        EXPECT_TRUE(kit::Eventually([&] { return ended_ == 1; }));
        EXPECT_EQ(why_, why);
        EXPECT_EQ(served::Freed("PidIsOnline"), 1U);
    }
    uint32_t Remaining() const { return remaining_; }

private:
    std::atomic<int> begun_ = 0, ended_ = 0;
    std::atomic<uint32_t> why_ = 0, remaining_ = 0;
};

TEST_F(RuntimeTest, WorkEndsWhenTheCallersTimeIsUp) {
    const Worker worker;
    const RawPeer peer(SocketOf(kTarnd)); // which stays
    peer.Send(OnlineRequest(1, 500));
    worker.ExpectBegun();
    clocks_.Advance(500ms);
    worker.ExpectEnded(ETIMEDOUT);
    EXPECT_EQ(worker.Remaining(), 500U);
}

TEST_F(RuntimeTest, WorkEndsWhenTheCallerDies) {
    const Worker worker;
    {
        const RawPeer peer(SocketOf(kTarnd));
        peer.Send(OnlineRequest(1));
        worker.ExpectBegun();
    }
    worker.ExpectEnded(ECANCELED);
}

TEST_F(RuntimeTest, WorkEndsWhenTheServerStops) {
    const Worker worker;
    const RawPeer peer(SocketOf(kTarnd));
    peer.Send(OnlineRequest(1));
    worker.ExpectBegun();
    EXPECT_TRUE(server_->Stop());
    worker.ExpectEnded(ESHUTDOWN);
}

TEST_F(RuntimeTest, WorkEndsWhenTheCallIsCancelledAndTheConnectionGoesOn) {
    const Worker worker;
    std::promise<host::CallOutcome> ended;
    const std::vector<uint8_t> request = kit::Encode<Unit>(Tarn_sys_diag_PidIsOnlineInput{1});
    const host::CallRequest call = {.service = kTarnd,
                                    .method = "PidIsOnline",
                                    .requestHash = velto::kTypeHash<Tarn_sys_diag_PidIsOnlineInput>,
                                    .request = request};
    const uint64_t number =
        client_.CallAsync(call, [&](host::CallOutcome &&outcome) { ended.set_value(std::move(outcome)); });
    worker.ExpectBegun();
    client_.Cancel(number);
    client_.Cancel(number);
    const host::CallOutcome outcome = ended.get_future().get();
    EXPECT_EQ(outcome.errCode, uint32_t{ECANCELED});
    EXPECT_NE(outcome.text.find("the caller gave up"), std::string::npos) << outcome.text;
    worker.ExpectEnded(ECANCELED);

    served::On("PidIsOnline", AnswerOnline);
    std::promise<host::CallOutcome> next;
    client_.CallAsync(call, [&](host::CallOutcome &&end) { next.set_value(std::move(end)); });
    EXPECT_TRUE(next.get_future().get().Ok());
}

TEST_F(RuntimeTest, UnansweredRequestIsDroppedWhenItsCallerDies) {
    std::atomic<void *> context = nullptr;
    served::On("PidIsOnline", [&](const void *, void *replyCtx) {
        context = replyCtx;
        return 0U;
    });
    {
        const RawPeer peer(SocketOf(kTarnd));
        peer.Send(OnlineRequest(1));
        EXPECT_TRUE(kit::Eventually([&] { return context != nullptr; }));
    }
    EXPECT_TRUE(kit::Eventually([&] { return TarnHost_Cancelled(context) == EALREADY; }));
    Online online{};
    EXPECT_EQ(TarnHost_Reply(context, &online), uint32_t{EALREADY});
}

TEST_F(RuntimeTest, CallerOfAOnewayRequestMayGo) {
    std::atomic<int> ended = 0;
    std::promise<void> gone;
    served::On("DBGCmdExecShowByTarnd", [&, callerHasGone = gone.get_future().share()](const void *, void *) {
        callerHasGone.wait();
        EXPECT_EQ(TarnHost_Cancelled(nullptr), 0U);
        ++ended;
        return 0U;
    });
    char word[] = "threads";
    for (int i = 0; i < 3; ++i) {
        const Tarn_sys_diag_DbgCmdShowByTarndInput input{word, 1};
        ASSERT_EQ((kit::Oneway<Unit>(client_, kTarnd, 0, "DBGCmdExecShowByTarnd", input)), 0U);
    }
    client_.Shutdown();
    EXPECT_TRUE(kit::Eventually([&] {
        host::ServerHealth health;
        EXPECT_TRUE(host::AskHealth(client_, kTarnd, 0, health, 10s).Ok());
        return health.connections == 1; // the one that asks
    }));
    gone.set_value();
    EXPECT_TRUE(kit::Eventually([&] { return ended == 3; }));
}

TEST_F(RuntimeTest, OutsideOfARequestNothingIsCancelled) {
    EXPECT_EQ(TarnHost_Cancelled(nullptr), 0U);
    EXPECT_EQ(TarnHost_RemainingMs(nullptr), UINT32_MAX);
}

// --- Replies

TEST_F(RuntimeTest, ReplyFromAnotherThreadAfterTheHandlerReturned) {
    StartServer({}, 20s, 1);
    std::promise<std::pair<uint32_t, void *>> taken;
    served::On("PidIsOnline", [&](const void *request, void *replyCtx) {
        taken.set_value({As<Tarn_sys_diag_PidIsOnlineInput>(request).uiPid, replyCtx});
        return 0U;
    });
    auto call = std::async(std::launch::async, [&] { return AskOnline(77); });
    const auto [pid, replyCtx] = taken.get_future().get();
    EXPECT_EQ(Ask("GetHugePagesInfo", Tarn_sys_diag_None{}).status, 38U) << "the one worker is free again";
    Online online{pid, 0};
    EXPECT_EQ(TarnHost_Reply(replyCtx, &online), 0U);
    EXPECT_EQ(TarnHost_Reply(replyCtx, &online), uint32_t{EALREADY});
    const kit::Answer<Unit, Online> answer(call.get());
    EXPECT_EQ(answer.Status(), 0U) << answer.Text();
    EXPECT_EQ(answer->uiPid, 77U);
    EXPECT_EQ(served::Freed("PidIsOnline"), 1U);
}

TEST_F(RuntimeTest, SecondReplyIsRefusedAndTheRecordStaysTheHandlers) {
    std::atomic<uint32_t> second = 0;
    served::On("PidIsOnline", [&](const void *, void *replyCtx) {
        Online online{1, 1};
        EXPECT_EQ(TarnHost_Reply(replyCtx, &online), 0U);
        online.uiPid = 2;
        second = TarnHost_Reply(replyCtx, &online);
        return 0U;
    });
    const kit::Answer<Unit, Online> answer(AskOnline());
    server_->Stop();
    EXPECT_EQ(answer->uiPid, 1U);
    EXPECT_EQ(second, uint32_t{EALREADY});
    EXPECT_EQ(served::Freed("PidIsOnline"), 1U);
}

TEST_F(RuntimeTest, ReplyWithAStatusLater) {
    std::thread later;
    served::On("PidIsOnline", [&](const void *, void *replyCtx) {
        later = std::thread([replyCtx] {
            EXPECT_EQ(TarnHost_ReplyStatus(replyCtx, 0), uint32_t{EINVAL});
            EXPECT_EQ(TarnHost_ReplyStatus(replyCtx, ESRCH), 0U);
            EXPECT_EQ(TarnHost_ReplyStatus(replyCtx, ESRCH), uint32_t{EALREADY});
        });
        return 0U;
    });
    const host::CallOutcome outcome = AskOnline();
    server_->Stop();
    later.join();
    EXPECT_EQ(outcome.status, uint32_t{ESRCH});
    EXPECT_EQ(outcome.text, "TarnSysdiagTarnd.PidIsOnline: status 3 (No such process)");
}

TEST_F(RuntimeTest, NullsAreRefused) {
    Online online{};
    EXPECT_EQ(TarnHost_Reply(nullptr, &online), uint32_t{EINVAL});
    EXPECT_EQ(TarnHost_Reply(&online, nullptr), uint32_t{EINVAL});
    EXPECT_EQ(RPC_IdlMsgAsyncCall(nullptr), uint32_t{EINVAL});
    EXPECT_EQ(RPC_GetUsrFuncLib(&online), nullptr);
    EXPECT_EQ(RPC_GetRpcInvoke(nullptr, nullptr), nullptr);
}

TEST_F(RuntimeTest, UnansweredRequestEndsAtItsDeadline) {
    std::promise<void *> context;
    served::On("PidIsOnline", [&](const void *, void *replyCtx) {
        context.set_value(replyCtx);
        return 0U;
    });
    auto call = std::async(std::launch::async, [&] { return AskOnline(1, 20s); });
    void *const replyCtx = context.get_future().get();
    Online online{};
    EXPECT_TRUE(kit::Eventually([&] { // the handler returns at a moment that it does not know
        clocks_.Advance(20s);
        server_->RunDue();
        return TarnHost_Cancelled(replyCtx) == EALREADY;
    }));
    EXPECT_EQ(TarnHost_Reply(replyCtx, &online), uint32_t{EALREADY});
    const host::CallOutcome outcome = call.get();
    EXPECT_EQ(outcome.errCode, uint32_t{ETIMEDOUT});
    EXPECT_EQ(outcome.text, "TarnSysdiagTarnd.PidIsOnline: not answered within its deadline");
}

TEST_F(RuntimeTest, NotImplementedSaysSo) {
    const host::CallOutcome outcome = Ask("GetHugePagesInfo", Tarn_sys_diag_None{});
    EXPECT_EQ(outcome.status, 38U);
    EXPECT_EQ(outcome.errCode, 0U);
    EXPECT_EQ(outcome.text, "TarnSysdiagTarnd.GetHugePagesInfo: not implemented");
}

TEST_F(RuntimeTest, EveryServedMethodAnswers) {
    for (const host::MethodInfo &method : host::Catalogue()) {
        if (method.service != kTarnd || method.method == "PidIsOnline") {
            continue;
        }
        const uint8_t empty[] = {8, 0, 0, 0, 4, 0, 4, 0, 4, 0, 0, 0}; // a table without fields
        const host::CallOutcome outcome =
            client_.Call(method.service, 0, method.method, method.requestHash, empty, 10s);
        EXPECT_EQ(outcome.status, 38U) << method.method << ": " << outcome.text;
    }
}

// --- Deadlines

TEST_F(RuntimeTest, TheDeadlineTravelsWithTheCall) {
    std::atomic<uint32_t> remaining = 0;
    served::On("PidIsOnline", [&](const void *request, void *replyCtx) {
        remaining = TarnHost_RemainingMs(replyCtx);
        return AnswerOnline(request, replyCtx);
    });
    client_.Configure({.runDir = dir_.Path(), .limits = {.deadline = 17s, .maxDeadline = 30s}});
    for (const auto &[asked, expected] : {std::pair(23456ms, 23456U), {0ms, 17000U}, {30001ms, 30000U}}) {
        EXPECT_TRUE(AskOnline(1, asked).Ok());
        EXPECT_EQ(remaining, expected);
    }
}

TEST_F(RuntimeTest, DeadlineOfASlowHandlerIsAnErrorTheCallerSees) {
    std::promise<void> leave;
    served::On("PidIsOnline", [left = leave.get_future().share()](const void *request, void *replyCtx) {
        left.wait();
        return AnswerOnline(request, replyCtx);
    });
    const host::CallOutcome outcome = AskOnline(1, 50ms);
    leave.set_value();
    EXPECT_EQ(outcome.errCode, uint32_t{ETIMEDOUT});
    EXPECT_NE(outcome.text.find("no answer within 50 ms"), std::string::npos) << outcome.text;
    EXPECT_TRUE(AskOnline(2).Ok()) << "the late reply of the call before must not be taken for this one's";
}

TEST_F(RuntimeTest, PeerThatNeverReadsIsAnErrorAtTheDeadline) {
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = dir_.Path() / "Deaf.sock";
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    const std::vector<uint8_t> request(8 << 20);
    const host::CallOutcome outcome = client_.Call("Deaf", 0, "Any", 0, request, 100ms);
    EXPECT_EQ(outcome.errCode, uint32_t{ETIMEDOUT}) << outcome.text;
    close(listener);
}

// --- Refusals

TEST_F(RuntimeTest, UnknownMethodAndServiceAreRefused) {
    host::CallOutcome outcome = client_.Call(kTarnd, 0, "PidIsOnlin", 1, {}, 10s);
    EXPECT_EQ(outcome.errCode, uint32_t{ENOENT});
    EXPECT_EQ(outcome.text, "TarnSysdiagTarnd.PidIsOnlin: the service has no such method");

    std::filesystem::create_symlink(SocketOf(kTarnd), SocketOf("Other"));
    outcome = client_.Call("Other", 0, "PidIsOnline", 1, {}, 10s);
    EXPECT_EQ(outcome.errCode, uint32_t{ENOENT});
    EXPECT_NE(outcome.text.find("no such service here; served are"), std::string::npos) << outcome.text;
    EXPECT_NE(outcome.text.find(kTarnd), std::string::npos) << outcome.text;

    EXPECT_EQ(client_.Call("Nobody", 0, "PidIsOnline", 1, {}, 10s).errCode, uint32_t{ENOENT});
    EXPECT_TRUE(AskOnline().Ok());
}

TEST_F(RuntimeTest, AnotherTypeHashIsRefused) {
    const std::vector<uint8_t> request = kit::Encode<Unit>(Tarn_sys_diag_PidIsOnlineInput{1});
    const host::CallOutcome outcome = client_.Call(kTarnd, 0, "PidIsOnline", 0x12345678, request, 10s);
    EXPECT_EQ(outcome.errCode, uint32_t{EPROTOTYPE});
    EXPECT_EQ(outcome.text.find("TarnSysdiagTarnd.PidIsOnline: request of type 0x12345678, expected 0x"), 0U)
        << outcome.text;
    EXPECT_EQ(served::Freed("PidIsOnline"), 0U);
}

TEST_F(RuntimeTest, UndecodableRequestIsRefusedWithTheDecodersLogRecord) {
    std::mutex mutex;
    std::string logged;
    host::SetLogHook([&](const host::LogRecord &record) {
        const std::lock_guard lock(mutex);
        logged += record.function + ": " + record.text;
    });
    const uint8_t bad[] = {0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0};
    const uint32_t hash = velto::kTypeHash<Tarn_sys_diag_PidIsOnlineInput>;
    const host::CallOutcome outcome = client_.Call(kTarnd, 0, "PidIsOnline", hash, bad, 10s);
    const host::CallOutcome empty = client_.Call(kTarnd, 0, "PidIsOnline", hash, {}, 10s);
    host::SetLogHook(nullptr);
    EXPECT_EQ(outcome.status, 12U);
    EXPECT_EQ(outcome.text, "TarnSysdiagTarnd.PidIsOnline: the request of 8 bytes is not a valid message");
    EXPECT_EQ(empty.status, 12U);
    EXPECT_NE(logged.find("Tarn_sys_diag_PidIsOnlineInput_unpack: [VELTO]:Table offset(4294967295)"), std::string::npos)
        << logged;
}

TEST_F(RuntimeTest, OversizeRequestIsRefusedBeforeItIsSent) {
    const std::vector<uint8_t> request((16U << 20) + 1);
    const host::CallOutcome outcome = client_.Call(kTarnd, 0, "PidIsOnline", 1, request, 10s);
    EXPECT_EQ(outcome.errCode, uint32_t{EMSGSIZE});
    EXPECT_NE(outcome.text.find("request of 16777217 bytes, expected at most 16777216"), std::string::npos)
        << outcome.text;
    EXPECT_EQ(client_.Call(kTarnd, 0, "PidIsOnline", 1, std::span(request).first(16U << 20), 10s).errCode,
              uint32_t{EPROTOTYPE})
        << "what is allowed is sent, and the server takes it";
}

TEST_F(RuntimeTest, OversizeRequestIsRefusedByTheServer) {
    StartServer({.messageBytes = 1000});
    for (const size_t size : {1001U, 10U << 20}) {
        const std::vector<uint8_t> request(size);
        const host::CallOutcome outcome = client_.Call(kTarnd, 0, "PidIsOnline", 1, request, 10s);
        EXPECT_EQ(outcome.errCode, uint32_t{EMSGSIZE}) << outcome.text;
        EXPECT_EQ(outcome.text,
                  "connection refused: message of " + std::to_string(size) + " bytes, expected at most 1000");
        EXPECT_TRUE(AskOnline().Ok());
    }
}

TEST_F(RuntimeTest, OversizeReplyIsRefusedOnBothSides) {
    std::vector<uint32_t> tids(1000);
    served::On("GetAllTidsByPid", [&](const void *, void *replyCtx) {
        Tarn_sys_diag_Tids reply{static_cast<uint32_t>(tids.size()), tids.data()};
        return TarnHost_Reply(replyCtx, &reply);
    });
    const auto size = static_cast<uint32_t>(Ask("GetAllTidsByPid", Tarn_sys_diag_Pid{1}).bytes.size());
    ASSERT_GT(size, 4000U);
    const auto ask = [&](uint32_t takes, uint32_t sends) {
        client_.Configure({.runDir = dir_.Path(), .limits = {.replyBytes = takes}});
        StartServer({.messageBytes = sends});
        return Ask("GetAllTidsByPid", Tarn_sys_diag_Pid{1});
    };
    EXPECT_TRUE(ask(size, size).Ok());
    host::CallOutcome outcome = ask(size - 1, size);
    EXPECT_EQ(outcome.errCode, uint32_t{EMSGSIZE});
    EXPECT_NE(outcome.text.find("expected at most " + std::to_string(size - 1)), std::string::npos) << outcome.text;
    EXPECT_TRUE(AskOnline().Ok());
    outcome = ask(size, size - 1);
    EXPECT_EQ(outcome.errCode, uint32_t{EMSGSIZE});
    EXPECT_EQ(outcome.text,
              "TarnSysdiagTarnd.GetAllTidsByPid: the reply is larger than " + std::to_string(size - 1) + " bytes");
    EXPECT_EQ(served::Freed("GetAllTidsByPid"), 4U);
}

TEST_F(RuntimeTest, OversizeReplyEndsAnAsynchronousCall) {
    std::vector<uint32_t> tids(1000);
    served::On("GetAllTidsByPid", [&](const void *, void *replyCtx) {
        Tarn_sys_diag_Tids reply{static_cast<uint32_t>(tids.size()), tids.data()};
        return TarnHost_Reply(replyCtx, &reply);
    });
    client_.Configure({.runDir = dir_.Path(), .limits = {.replyBytes = 2000}});
    std::promise<host::CallOutcome> ended;
    const std::vector<uint8_t> request = kit::Encode<Unit>(Tarn_sys_diag_Pid{1});
    client_.CallAsync({.service = kTarnd,
                       .method = "GetAllTidsByPid",
                       .requestHash = velto::kTypeHash<Tarn_sys_diag_Pid>,
                       .request = request},
                      [&](host::CallOutcome &&outcome) { ended.set_value(std::move(outcome)); });
    EXPECT_EQ(ended.get_future().get().errCode, uint32_t{EMSGSIZE});
}

// --- Peers that misbehave

TEST_F(RuntimeTest, GarbageIsAnsweredWithWhatIsWrongAndTheConnectionClosed) {
    const RawPeer peer(SocketOf(kTarnd));
    const std::string garbage = "GET / HTTP/1.1\r\n";
    peer.Send({reinterpret_cast<const uint8_t *>(garbage.data()), garbage.size()});
    const auto frames = peer.Read();
    ASSERT_EQ(frames.size(), 1U);
    EXPECT_EQ(frames[0].header.kind, host::FrameKind::kError);
    EXPECT_EQ(frames[0].header.errCode, uint32_t{EBADMSG});
    EXPECT_EQ(host::ErrorText(frames[0].payload),
              "connection refused: not a frame: it starts with 47 45 54 20, expected 54 52 50 43 (\"TRPC\")");
    EXPECT_TRUE(AskOnline().Ok());
}

TEST_F(RuntimeTest, ReplyFromAClientIsRefused) {
    const RawPeer peer(SocketOf(kTarnd));
    std::vector<uint8_t> reply = OnlineRequest(5);
    reply[6] = 3;
    peer.Send(reply);
    const auto frames = peer.Read(1);
    ASSERT_EQ(frames.size(), 1U);
    EXPECT_EQ(frames[0].header.errCode, uint32_t{EBADMSG});
}

TEST_F(RuntimeTest, PeersThatDieInMidMessageLeaveNothingBehind) {
    const std::vector<uint8_t> request = OnlineRequest(1);
    for (size_t size = 0; size < request.size(); size += 7) {
        const RawPeer peer(SocketOf(kTarnd));
        peer.Send(std::span(request).first(size));
    }
    EXPECT_TRUE(AskOnline().Ok());
    EXPECT_EQ(served::Freed("PidIsOnline"), 1U);
}

TEST_F(RuntimeTest, PeersThatDieBeforeTheirAnswerLeaveNothingBehind) {
    for (int i = 0; i < 50; ++i) {
        const RawPeer peer(SocketOf(kTarnd));
        peer.Send(OnlineRequest(1));
    }
    // Those whose turn came after their peer had gone have not been run.
    EXPECT_TRUE(kit::Eventually([&] {
        host::ServerHealth health;
        EXPECT_TRUE(host::AskHealth(client_, kTarnd, 0, health, 10s).Ok());
        return health.connections == 1 && health.requests == 1;
    }));
    EXPECT_TRUE(AskOnline().Ok());
}

TEST_F(RuntimeTest, PipelinedRequestsAreAllAnswered) {
    const RawPeer peer(SocketOf(kTarnd));
    constexpr uint64_t kRequests = 300; // several times the limit in flight
    std::vector<uint8_t> stream;
    for (uint64_t id = 1; id <= kRequests; ++id) {
        const std::vector<uint8_t> request = OnlineRequest(id);
        stream.insert(stream.end(), request.begin(), request.end());
    }
    peer.Send(stream);
    std::map<uint64_t, int> answers;
    for (const host::Frame &frame : peer.Read(kRequests)) {
        EXPECT_EQ(frame.header.kind, host::FrameKind::kReply);
        ++answers[frame.header.id];
    }
    EXPECT_EQ(answers.size(), kRequests);
}

TEST_F(RuntimeTest, RequestsOfOneConnectionRunAtTheSameTime) {
    std::mutex mutex;
    std::condition_variable changed;
    int inside = 0;
    served::On("PidIsOnline", [&](const void *request, void *replyCtx) {
        std::unique_lock lock(mutex);
        ++inside;
        changed.notify_all();
        EXPECT_TRUE(changed.wait_for(lock, 10s, [&] { return inside == 3; }));
        return AnswerOnline(request, replyCtx);
    });
    const RawPeer peer(SocketOf(kTarnd));
    for (uint64_t id = 1; id <= 3; ++id) {
        peer.Send(OnlineRequest(id));
    }
    EXPECT_EQ(peer.Read(3).size(), 3U);
    server_->Stop();
}

// A server that is the test's: it takes one connection, a request of it, and answers with bytes.
class FakeServer {
public:
    FakeServer(const std::filesystem::path &path, std::vector<uint8_t> answer, bool repeatId = false) {
        listener_ = host::Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.string().copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(listener_.Fd(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener_.Fd(), 5), 0);
        thread_ = std::thread([this, answer = std::move(answer), repeatId]() mutable {
            const RawPeer peer(accept(listener_.Fd(), nullptr, nullptr));
            const auto frames = peer.Read(1);
            if (repeatId && frames.size() == 1) {
                velto::Store(answer.data() + 8, frames[0].header.id);
            }
            peer.Send(answer);
        });
    }
    ~FakeServer() { thread_.join(); }
    FakeServer(const FakeServer &) = delete;
    FakeServer &operator=(const FakeServer &) = delete;

private:
    host::Descriptor listener_;
    std::thread thread_;
};

std::vector<uint8_t> FakeReply(uint32_t claimedLength, size_t sent) {
    host::FrameHeader header;
    header.kind = host::FrameKind::kReply;
    std::vector<uint8_t> bytes = host::MakeFrame(header, std::vector<uint8_t>(sent));
    velto::Store(bytes.data() + 32, claimedLength);
    return bytes;
}

// What both kinds of call say of a server's answer.
class FakeServerTest : public RuntimeTest {
protected:
    void Expect(uint32_t errCode, const std::vector<uint8_t> &answer, bool repeatId, const std::string &text) {
        host::CallOutcome outcome;
        {
            const FakeServer server(dir_.Path() / "Fake.sock", answer, repeatId);
            outcome = client_.Call("Fake", 0, "Any", 1, {}, 5s);
        }
        EXPECT_EQ(outcome.errCode, errCode) << outcome.text;
        EXPECT_NE(outcome.text.find(text), std::string::npos) << outcome.text;
        std::filesystem::remove(dir_.Path() / "Fake.sock");
        std::promise<host::CallOutcome> ended;
        {
            const FakeServer server(dir_.Path() / "Fake.sock", answer, repeatId);
            client_.CallAsync({.service = "Fake", .method = "Any", .requestHash = 1, .deadline = 5s},
                              [&](host::CallOutcome &&end) { ended.set_value(std::move(end)); });
            outcome = ended.get_future().get();
        }
        EXPECT_EQ(outcome.errCode, errCode) << outcome.text;
        std::filesystem::remove(dir_.Path() / "Fake.sock");
    }
};

TEST_F(FakeServerTest, DiesInMidReply) {
    Expect(ECONNRESET, FakeReply(100, 50), true, "the connection ended before the answer");
}

TEST_F(FakeServerTest, SendsGarbage) {
    Expect(EBADMSG, std::vector<uint8_t>(200, 0xEE), false, "not a frame");
}

TEST_F(FakeServerTest, ClaimsTooMuch) {
    Expect(EMSGSIZE, FakeReply(0xFFFFFFFF, 0), true, "message of 4294967295 bytes");
}

TEST_F(FakeServerTest, AnswersAnotherCall) {
    Expect(ECONNRESET, FakeReply(0, 0), false, "the connection ended before the answer");
}

TEST_F(FakeServerTest, SendsRequests) {
    std::vector<uint8_t> request = FakeReply(0, 0);
    request[6] = 1;
    Expect(EBADMSG, request, true, "a server sends replies");
}

// --- Many at once, restarts, ends

TEST_F(RuntimeTest, ConcurrentClients) {
    constexpr uint32_t kThreads = 8;
    constexpr uint32_t kCalls = 100;
    std::atomic<uint32_t> good = 0;
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (uint32_t i = 0; i < kCalls; ++i) {
                const kit::Answer<Unit, Online> answer(AskOnline(t * 1000 + i));
                good += answer.Status() == 0 && answer->uiPid == t * 1000 + i ? 1 : 0;
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(good, kThreads * kCalls);
}

TEST_F(RuntimeTest, ClientGoesOnAfterARestart) {
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(AskOnline().Ok());
        StartServer();
    }
    EXPECT_TRUE(AskOnline().Ok());
}

TEST_F(RuntimeTest, NobodyListens) {
    server_->Stop();
    const host::CallOutcome outcome = AskOnline();
    EXPECT_EQ(outcome.errCode, uint32_t{ENOENT});
    EXPECT_NE(outcome.text.find("TarnSysdiagTarnd.sock: not connected: No such file"), std::string::npos)
        << outcome.text;
}

TEST_F(RuntimeTest, StopRemovesTheSockets) {
    const auto paths = server_->Sockets();
    EXPECT_EQ(paths.size(), 3U);
    for (const auto &path : paths) {
        EXPECT_TRUE(std::filesystem::is_socket(path)) << path;
    }
    EXPECT_TRUE(server_->Stop());
    EXPECT_TRUE(server_->Stop());
    for (const auto &path : paths) {
        EXPECT_FALSE(std::filesystem::exists(path)) << path;
    }
}

TEST_F(RuntimeTest, SocketOfALiveServerIsNotTakenOver) {
    host::Server second({.runDir = dir_.Path()});
    second.AddService(__module_spec_TarnSysdiagTarnd);
    try {
        second.Start();
        ADD_FAILURE() << "a second server started";
    } catch (const std::runtime_error &error) {
        EXPECT_NE(std::string(error.what()).find("TarnSysdiagTarnd.sock: in use by a live server"), std::string::npos)
            << error.what();
    }
    EXPECT_TRUE(AskOnline().Ok());
}

TEST_F(RuntimeTest, StaleSocketIsReplacedAndAnythingElseIsNot) {
    server_->Stop();
    const int left = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    SocketOf(kTarnd).string().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(left, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    close(left);
    ASSERT_TRUE(std::filesystem::is_socket(SocketOf(kTarnd)));
    StartServer();
    EXPECT_TRUE(AskOnline().Ok());

    server_->Stop();
    std::ofstream(SocketOf(kTarnd)) << "a file";
    EXPECT_THROW(server_->Start(), std::runtime_error);
    EXPECT_TRUE(std::filesystem::is_regular_file(SocketOf(kTarnd)));
    EXPECT_FALSE(std::filesystem::exists(SocketOf("TarnSysdiagTarndAgent")));
}

TEST_F(RuntimeTest, StopWaitsForHandlers) {
    std::promise<void> entered;
    served::On("PidIsOnline", [&](const void *request, void *replyCtx) {
        entered.set_value();
        EXPECT_TRUE(kit::Eventually([&] { return TarnHost_Cancelled(replyCtx) == ESHUTDOWN; }));
        return AnswerOnline(request, replyCtx);
    });
    auto call = std::async(std::launch::async, [&] { return AskOnline(); });
    entered.get_future().wait();
    EXPECT_TRUE(server_->Stop());
    const host::CallOutcome outcome = call.get();
    EXPECT_TRUE(outcome.Ok()) << outcome.text;
}

TEST_F(RuntimeTest, StopDoesNotWaitForEver) {
    StartServer({}, 1ms);
    std::promise<void> entered;
    std::promise<void> leave;
    std::atomic<bool> left = false;
    served::On("PidIsOnline", [&](const void *request, void *replyCtx) {
        entered.set_value();
        leave.get_future().wait();
        const uint32_t status = AnswerOnline(request, replyCtx);
        left = true;
        return status;
    });
    auto call = std::async(std::launch::async, [&] { return AskOnline(); });
    entered.get_future().wait();
    EXPECT_FALSE(server_->Stop());
    EXPECT_EQ(call.get().errCode, uint32_t{ECANCELED});
    leave.set_value();
    EXPECT_TRUE(kit::Eventually([&] { return left.load(); }));
}

TEST_F(RuntimeTest, MalformedSpecificationsAreRefused) {
    host::Server server({.runDir = dir_.Path()});
    server.AddService(__module_spec_TarnSysdiagTarnd);
    EXPECT_THROW(server.AddService(__module_spec_TarnSysdiagTarnd), std::invalid_argument);
    IdlModuleSpec nameless = __module_spec_TarnSysdiagTarnd;
    memset(nameless.acService, 0, sizeof nameless.acService);
    EXPECT_THROW(server.AddService(nameless), std::invalid_argument);
    IdlModuleSpec empty = __module_spec_TarnSysdiagTarnd;
    strcpy(empty.acService, "Empty");
    empty.pstInterfaces = nullptr;
    EXPECT_THROW(server.AddService(empty), std::invalid_argument);
    const IdlInterfaceEntry hollow[2] = {};
    empty.pstInterfaces = hollow;
    empty.uiInterfaceNum = 2;
    EXPECT_THROW(server.AddService(empty), std::invalid_argument);
}

TEST(Transport, SaysThatThereIsNoDescriptorToTellAnAgentBy) {
    const kit::TempDir dir;
    const host::Transport transport{host::Directory(dir.Path())};
    const auto listener = transport.Listen("TarnSysdiagAgent", false);
    const kit::DescriptorLimit forTheConnection(kit::OneMoreDescriptor());
    const auto pid = static_cast<uint32_t>(getpid());
    const host::Connected connected = transport.Connect("TarnSysdiagAgent", pid, std::chrono::steady_clock::now() + 5s);
    EXPECT_FALSE(connected.socket);
    EXPECT_EQ(connected.error, EMFILE) << connected.reason;
}

TEST_F(RuntimeTest, OutOfDescriptorsIsAnErrorAndPasses) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's own check of virtual calls needs descriptors";
#endif
    EXPECT_TRUE(AskOnline().Ok());
    const rlim_t few = kit::OneMoreDescriptor();
    client_.Shutdown();
    std::optional<kit::DescriptorLimit> limit(few);
    host::Client other({.runDir = dir_.Path()});
    const std::vector<uint8_t> request = kit::Encode<Unit>(Tarn_sys_diag_PidIsOnlineInput{1});
    int failed = 0;
    for (int attempt = 0; failed == 0 && attempt < 50; ++attempt) { // what closes meanwhile makes room
        other.Shutdown();
        std::vector<host::Descriptor> fillers;
        for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) {
            fillers.emplace_back(fd);
        }
        ASSERT_FALSE(fillers.empty());
        fillers.pop_back(); // a client gets its socket, the server does not
        std::vector<std::future<host::CallOutcome>> calls;
        for (int i = 0; i < 8; ++i) {
            calls.push_back(std::async(std::launch::async, [&] {
                return other.Call(kTarnd, 0, "PidIsOnline", velto::kTypeHash<Tarn_sys_diag_PidIsOnlineInput>, request,
                                  300ms);
            }));
        }
        for (auto &call : calls) {
            failed += call.get().Ok() ? 0 : 1;
        }
    }
    limit.reset();
    EXPECT_GT(failed, 0);
    clocks_.Advance(1s); // where even the spare descriptor was taken meanwhile, the server tries again later
    EXPECT_TRUE(AskOnline().Ok());
}

// --- Connections that wait for the next call

TEST(Pool, KeepsSoManyForSoLong) {
    const auto now = host::Pool::Clock::now();
    const host::Pool::Target target(7, "Any");
    const auto channel = [] { return std::make_unique<host::Channel>(host::Connected(), 1); };
    host::Pool pool;
    EXPECT_EQ(pool.Take(target, now), nullptr);
    pool.Give(target, channel(), now);
    EXPECT_EQ(pool.Take({8, "Any"}, now), nullptr);
    EXPECT_EQ(pool.Take({7, "Other"}, now), nullptr);
    EXPECT_NE(pool.Take(target, now + 30s - 1ns), nullptr);
    EXPECT_EQ(pool.Take(target, now), nullptr) << "it is the caller's now";
    pool.Give(target, channel(), now);
    EXPECT_EQ(pool.Take(target, now + 30s), nullptr) << "the server may be about to close it";
    for (int i = 0; i < 20; ++i) {
        pool.Give(target, channel(), now);
    }
    int taken = 0;
    while (pool.Take(target, now) != nullptr) {
        ++taken;
    }
    EXPECT_EQ(taken, 16);
    pool.Give(target, channel(), now);
    pool.Give({8, "Any"}, channel(), now);
    pool.Forget(target);
    EXPECT_EQ(pool.Take(target, now), nullptr);
    EXPECT_NE(pool.Take({8, "Any"}, now), nullptr);
}

// An agent that answers one call, leaves its connection to a process of another program, and ends when it is told to.
// That process tells when something comes.
[[noreturn]] void AnswerOnceAndEnd(const std::filesystem::path &runDir, int told, int tells) {
    const host::Listener listener(runDir / fmt::format("agent-{}.sock", getpid()), true);
    pollfd waiting{listener.Fd(), POLLIN, 0};
    poll(&waiting, 1, 20000);
    const int connection = accept(listener.Fd(), nullptr, nullptr);
    uint8_t request[1024];
    host::FrameHeader header;
    if (read(connection, request, sizeof request) < static_cast<ssize_t>(host::kHeaderSize)) {
        _exit(1);
    }
    host::FrameParser parser(sizeof request);
    parser.Feed(std::span(request).first(host::kHeaderSize));
    header.kind = host::FrameKind::kReply;
    header.id = parser.Take().header.id;
    const auto reply = host::MakeFrame(header, {});
    if (write(connection, reply.data(), reply.size()) != static_cast<ssize_t>(reply.size())) {
        _exit(1);
    }
    if (fork() == 0) {
        const ssize_t came = read(connection, request, sizeof request);
        _exit(came > 0 && write(tells, "", 1) == 1 ? 0 : 1);
    }
    char go;
    _exit(read(told, &go, 1) == 1 ? 0 : 1);
}

TEST(Pool, HasNoConnectionToAnAgentThatHasEnded) {
    const kit::TempDir dir;
    int go[2], came[2];
    ASSERT_EQ(pipe(go), 0);
    ASSERT_EQ(pipe2(came, O_NONBLOCK), 0);
    const pid_t child = fork();
    if (child == 0) {
        AnswerOnceAndEnd(dir.Path(), go[0], came[1]);
    }
    host::Client client({.runDir = dir.Path()});
    const auto pid = static_cast<uint32_t>(child);
    const auto call = [&] { return client.Call("TarnSysdiagAgent", pid, "DBGCmdExecResultGet", 0, {}, 10s); };
    ASSERT_TRUE(kit::Eventually([&] { return client.Knows("TarnSysdiagAgent", pid) && call().Ok(); }));
    EXPECT_EQ(write(go[1], "", 1), 1);
    waitpid(child, nullptr, 0);
    EXPECT_FALSE(call().Ok());
    char none;
    EXPECT_EQ(read(came[0], &none, 1), -1) << "what was meant for the agent went to another process";
    client.Shutdown(); // ends the other process
    for (const int fd : {go[0], go[1], came[0], came[1]}) {
        close(fd);
    }
}

// --- The catalogue

TEST(Catalogue, HasEveryMethodOfTheTables) {
    EXPECT_EQ(host::Catalogue().size(), 79U + 2 + 26 + 15);
    for (const IdlModuleSpec *const spec : {&__module_spec_TarnSysdiagTarnd, &__module_spec_TarnSysdiagTarndAgent,
                                            &served_module_spec_TarnSysdiagAgent}) {
        for (uint32_t i = 1; i < spec->uiInterfaceNum; ++i) {
            const IdlInterfaceEntry &entry = spec->pstInterfaces[i];
            const host::MethodInfo *const method = host::FindMethod(spec->acService, entry.acMethod);
            ASSERT_NE(method, nullptr) << entry.acMethod;
            EXPECT_EQ(method->index, i) << entry.acMethod;
            EXPECT_EQ(method->requestHash, entry.uiRequestHash) << entry.acMethod;
        }
    }
}

TEST(Catalogue, MethodNamesAreUnique) {
    for (const host::MethodInfo &method : host::Catalogue()) {
        EXPECT_EQ(host::FindMethod(method.method), &method) << method.method;
    }
    EXPECT_EQ(host::FindMethod("TarnSysdiagTarnd", "GetDst"), nullptr);
    EXPECT_EQ(host::FindMethod("GetDust"), nullptr);
    EXPECT_FALSE(host::FindMethod("DBGCmdExecShow")->Replies());
    EXPECT_EQ(host::FindMethod("DBGCmdExecShow")->responseHash, 0U);
}

TEST(Directory, TakesTheRunDirectoryFromTheEnvironment) {
    setenv("TARN_RUN_DIR", "/some/where", 1);
    EXPECT_EQ(host::DefaultRunDir(), "/some/where");
    EXPECT_EQ(host::Directory().Socket("TarnSysdiagAgent", 12), "/some/where/agent-12.sock");
    EXPECT_EQ(host::Directory().Socket("TarnSysdiagMaster", 0), "/some/where/TarnSysdiagMaster.sock");
    unsetenv("TARN_RUN_DIR");
}

} // namespace
