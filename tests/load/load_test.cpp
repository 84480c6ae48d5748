// 64 clients that call all methods at the same time: nothing fails that should not, and nothing is left behind.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <cinttypes>
#include <future>
#include <mutex>

#include "tests/load/system.h"

namespace {

using namespace kit;

constexpr size_t kClients = 64;
constexpr auto kShort = 10s;
constexpr auto kDeadline = 60s; // under load; passing it is a failure
// What a daemon may grow by between a third of the time and its end. Its samples grow within a bound for an hour, by
// some 5 MB where 200 processes run; the allocator's arenas take the rest.
constexpr uint64_t kGrowthKib = 16 * 1024;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryIsTheProgramsOwn = false; // freed blocks stay for a while
#else
constexpr bool kMemoryIsTheProgramsOwn = true;
#endif

uint64_t ResidentKib(uint32_t pid) {
    std::ifstream file(fmt::format("/proc/{}/statm", pid));
    uint64_t size = 0, resident = 0;
    file >> size >> resident;
    return resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

// What all clients saw.
class Tally {
public:
    void Add(const Mix::Call &call, const host::CallOutcome &outcome, Clock::duration took) {
        const uint32_t status = StatusOf(call, outcome);
        const std::lock_guard lock(mutex_);
        ++calls_;
        slowest_ = std::max(slowest_, took);
        ++byMethod_[call.Name()];
        ++byStatus_[status];
        if (!IsExpected(call, status)) {
            failures_.try_emplace({call.Name(), status}, Tell(call, outcome));
        }
    }

    void Print(Clock::duration time) const {
        printf("%" PRIu64 " calls of %zu methods, %.0f a second, the slowest %.2f s; by status:", calls_,
               byMethod_.size(), static_cast<double>(calls_) / std::chrono::duration<double>(time).count(),
               std::chrono::duration<double>(slowest_).count());
        for (const auto &[status, count] : byStatus_) {
            printf(" %u: %" PRIu64, status, count);
        }
        printf("\n");
    }
    // One for each method and status.
    std::vector<std::string> Failures() const {
        std::vector<std::string> texts;
        for (const auto &[key, text] : failures_) {
            texts.push_back(text);
        }
        return texts;
    }

private:
    std::mutex mutex_;
    uint64_t calls_ = 0;
    Clock::duration slowest_{0};
    std::map<std::string, uint64_t> byMethod_;
    std::map<uint32_t, uint64_t> byStatus_;
    std::map<std::pair<std::string, uint32_t>, std::string> failures_;
};

// One call in ten is asynchronous.
host::CallOutcome Make(host::Client &client, Mix &mix, const host::CallRequest &call) {
    if (mix.Random()() % 10 != 0) {
        return client.Call(call);
    }
    std::promise<host::CallOutcome> outcome;
    client.CallAsync(call, [&](host::CallOutcome &&done) { outcome.set_value(std::move(done)); });
    return outcome.get_future().get();
}

class Load : public WholeSystem<Unit> {
protected:
    void Client(uint64_t seed, Clock::time_point end) {
        host::Client client({.runDir = dir_.Path()});
        Mix mix(scene_, seed);
        while (Clock::now() < end) {
            const Mix::Call call = mix.Next();
            const auto start = Clock::now();
            const host::CallOutcome outcome = Make(client, mix, call.WithDeadline(kDeadline));
            tally_.Add(call, outcome, Clock::now() - start);
        }
    }

    Tally tally_;
};

TEST_F(Load, ManyClientsCallAllMethods) {
    const auto time = ProofTime(kShort);
    const auto start = Clock::now();
    std::vector<std::thread> clients;
    for (size_t i = 0; i < kClients; ++i) {
        clients.emplace_back([&, i] { Client(i, start + time); });
    }
    std::this_thread::sleep_until(start + time / 3);
    const uint64_t warm = ResidentKib(daemon_->Pid()), warmAgent = ResidentKib(agent_->Pid());
    for (std::thread &client : clients) {
        client.join();
    }
    const uint64_t end = ResidentKib(daemon_->Pid()), endAgent = ResidentKib(agent_->Pid());
    tally_.Print(Clock::now() - start);
    printf("resident: daemon %" PRIu64 ", then %" PRIu64 " KiB; agent %" PRIu64 ", then %" PRIu64 " KiB\n", warm, end,
           warmAgent, endAgent);
    for (const std::string &failure : tally_.Failures()) {
        ADD_FAILURE() << failure;
    }
    if (kMemoryIsTheProgramsOwn) {
        EXPECT_LT(end, warm + kGrowthKib);
        EXPECT_LT(endAgent, warmAgent + kGrowthKib);
    }
}

} // namespace
