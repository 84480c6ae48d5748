// Start, call, cancel and shut down at random moments: every callback comes exactly once, and nothing is left behind.
// TARN_SEED and TARN_ROUNDS in the environment choose another run.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <random>

#include "host/osal/accounting.h"
#include "host/osal/log.h"
#include "host/runtime/server.h"
#include "tarn_sysdiag/host/reply.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tests/host/kit.h"
#include "tests/host/served.h"

namespace {

using namespace std::chrono_literals;
constexpr const char *kTarnd = "TarnSysdiagTarnd";

uint64_t FromEnvironment(const char *name, uint64_t otherwise) {
    const char *const text = getenv(name);
    return text == nullptr ? otherwise : std::stoull(text);
}

size_t EntriesOf(const char *directory) {
    return static_cast<size_t>(
        std::distance(std::filesystem::directory_iterator(directory), std::filesystem::directory_iterator()));
}

// What the method does is chosen by the process that it is asked for.
enum Behaviour : uint32_t { kAnswers, kFails, kAnswersLater, kWorksUntilCancelled, kNeverAnswers, kBehaviours };

// Answers requests on a thread of its own, some time after their handlers have returned.
class LateAnswers {
public:
    LateAnswers() : thread_([this] { Run(); }) {}
    LateAnswers(const LateAnswers &) = delete;
    LateAnswers &operator=(const LateAnswers &) = delete;
    ~LateAnswers() {
        Add(nullptr);
        thread_.join();
    }
    void Add(void *context) {
        const std::lock_guard lock(mutex_);
        contexts_.push_back(context);
        changed_.notify_all();
    }
    uint64_t Taken() const { return taken_; }

private:
    void Run() {
        while (true) {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return !contexts_.empty(); });
            void *const context = contexts_.front();
            contexts_.pop_front();
            lock.unlock();
            if (context == nullptr) {
                return;
            }
            Tarn_sys_diag_PidIsOnlineOuput online{1, 1};
            const uint32_t result = TarnHost_Reply(context, &online);
            EXPECT_TRUE(result == 0 || result == EALREADY) << result;
            taken_ += result == 0 ? 1 : 0;
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<void *> contexts_;
    std::atomic<uint64_t> taken_ = 0;
    std::thread thread_;
};

class Rounds {
public:
    explicit Rounds(uint64_t seed) : random_(seed) {
        served::On("PidIsOnline", [this](const void *request, void *replyCtx) {
            return Handle(static_cast<const Tarn_sys_diag_PidIsOnlineInput *>(request)->uiPid, replyCtx);
        });
    }
    Rounds(const Rounds &) = delete;
    Rounds &operator=(const Rounds &) = delete;
    ~Rounds() { served::Reset(); }

    void Run() {
        client_.Configure({.runDir = dir_.Path()});
        StartServer();
        std::thread second;
        if (Below(3) == 0) {
            second = std::thread([this, seed = random_()] { CallMany(seed, 4); });
        }
        for (uint64_t i = 0, count = 1 + Below(6); i < count; ++i) {
            Step();
        }
        if (Below(2) == 0) {
            StopServer();
        }
        if (second.joinable()) {
            if (Below(2) == 0) {
                client_.Shutdown(); // while the other thread calls
            }
            second.join();
        }
        client_.Shutdown();
        StopServer();
        for (const auto &callbacks : callbacks_) {
            EXPECT_EQ(*callbacks, 1);
        }
        calls_ += callbacks_.size();
        callbacks_.clear();
        numbers_.clear();
    }

    uint64_t AsyncCalls() const { return calls_; }

    // Records that the runtime took are released, the others were the handler's.
    void ExpectReleased() { EXPECT_EQ(served::Freed("PidIsOnline"), taken_ + late_.Taken()); }

private:
    uint64_t Below(uint64_t end) { return random_() % end; }

    void StartServer() {
        server_ = std::make_unique<host::Server>(host::ServerOptions{
            .runDir = dir_.Path(), .workers = 1 + static_cast<unsigned>(Below(2)), .stopBound = 20s});
        server_->AddService(__module_spec_TarnSysdiagTarnd);
        server_->Start();
    }

    void StopServer() {
        if (server_ != nullptr) {
            EXPECT_TRUE(server_->Stop());
            server_.reset();
        }
    }

    // Rarely what takes its time.
    static uint32_t SomeBehaviour(std::mt19937_64 &random) {
        const uint64_t dice = random() % 64;
        return dice == 0 ? kNeverAnswers : dice < 4 ? kWorksUntilCancelled : static_cast<uint32_t>(dice % 3);
    }

    void Step() {
        switch (Below(10)) {
        case 0:
            client_.Shutdown();
            break;
        case 1:
            StopServer();
            if (Below(2) == 0) {
                StartServer();
            }
            break;
        case 2:
        case 3:
            client_.Cancel(SomeCall());
            break;
        default:
            CallMany(random_(), 1);
        }
    }

    uint64_t SomeCall() {
        const uint64_t dice = random_();
        const std::lock_guard lock(mutex_);
        return numbers_.empty() ? 0 : numbers_[static_cast<size_t>(dice % numbers_.size())];
    }

    void CallMany(uint64_t seed, int count) {
        std::mt19937_64 random(seed);
        for (int i = 0; i < count; ++i) {
            const Tarn_sys_diag_PidIsOnlineInput input{SomeBehaviour(random)};
            const std::vector<uint8_t> bytes = kit::Encode<Unit>(input);
            const bool slow = input.uiPid >= kWorksUntilCancelled;
            const auto inTime = [slow](const host::CallOutcome &outcome) {
                EXPECT_TRUE(slow || outcome.errCode != ETIMEDOUT) << outcome.text;
            };
            const host::CallRequest call = {.service = kTarnd,
                                            .method = "PidIsOnline",
                                            .requestHash = velto::kTypeHash<Tarn_sys_diag_PidIsOnlineInput>,
                                            .request = bytes,
                                            .deadline = slow ? std::chrono::milliseconds(1 + random() % 3) : 20s};
            switch (random() % 4) {
            case 0:
                inTime(client_.Call(call));
                break;
            case 1:
                inTime(client_.Oneway(call));
                break;
            default:
                CallAsync(call, inTime);
            }
        }
    }

    template <class Check>
    void CallAsync(const host::CallRequest &call, Check inTime) {
        const auto callbacks = std::make_shared<std::atomic<int>>(0);
        const uint64_t number = client_.CallAsync(call, [callbacks, inTime](host::CallOutcome &&outcome) {
            inTime(outcome);
            ++*callbacks;
        });
        const std::lock_guard lock(mutex_);
        callbacks_.push_back(callbacks);
        numbers_.push_back(number);
    }

    uint32_t Handle(uint32_t behaviour, void *replyCtx) {
        if (behaviour == kAnswersLater) {
            late_.Add(replyCtx);
            return 0;
        }
        if (behaviour == kFails || behaviour == kNeverAnswers) {
            return behaviour == kFails ? 3 : 0;
        }
        while (behaviour == kWorksUntilCancelled && TarnHost_Cancelled(replyCtx) == 0) {
            std::this_thread::sleep_for(50us);
        }
        Tarn_sys_diag_PidIsOnlineOuput online{1, 1};
        taken_ += TarnHost_Reply(replyCtx, &online) == 0 ? 1 : 0;
        return 0;
    }

    std::mt19937_64 random_;
    kit::TempDir dir_;
    LateAnswers late_;
    host::Client client_;
    std::unique_ptr<host::Server> server_;
    std::mutex mutex_;
    std::vector<std::shared_ptr<std::atomic<int>>> callbacks_;
    std::vector<uint64_t> numbers_;
    std::atomic<uint64_t> taken_ = 0;
    uint64_t calls_ = 0;
};

TEST(RuntimeRandom, NoCallbackIsLostOrDoubledAndNothingIsLeftBehind) {
    const uint64_t seed = FromEnvironment("TARN_SEED", 20250711);
    const uint64_t count = FromEnvironment("TARN_ROUNDS", 1000);
    host::Log().set_level(host::LogLevel::kOff);
    printf("seed %llu, %llu rounds\n", static_cast<unsigned long long>(seed), static_cast<unsigned long long>(count));
    std::thread([] {}).join(); // a sanitizer starts a thread of its own with the first
    const uint64_t blocks = host::MemoryTotal().liveBlocks;
    const size_t threads = EntriesOf("/proc/self/task"), descriptors = EntriesOf("/proc/self/fd");
    {
        Rounds rounds(seed);
        for (uint64_t i = 0; i < count && !HasFailure(); ++i) {
            SCOPED_TRACE("round " + std::to_string(i));
            rounds.Run();
        }
        rounds.ExpectReleased();
        printf("%llu asynchronous calls\n", static_cast<unsigned long long>(rounds.AsyncCalls()));
        EXPECT_GT(rounds.AsyncCalls(), count);
    }
    EXPECT_EQ(host::MemoryTotal().liveBlocks, blocks);
    EXPECT_TRUE(kit::Eventually([&] { return EntriesOf("/proc/self/task") == threads; }));
    EXPECT_EQ(EntriesOf("/proc/self/fd"), descriptors);
    host::Log().set_level(host::LogLevel::kInfo);
}

} // namespace
