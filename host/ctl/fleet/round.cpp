#include "host/ctl/fleet/round.h"

#include <fmt/format.h>

#include <algorithm>
#include <deque>
#include <iostream>
#include <optional>

#include "host/ctl/interrupt.h"
#include "host/ctl/tasks/tasks.h"
#include "host/osal/mutex.h"

namespace ctl {

namespace {

// What has come and was not taken yet. Calls that are given up come later.
class Arrived {
public:
    void Add(size_t device, host::CallOutcome &&outcome) TARN_EXCLUDES(mutex_) {
        const host::MutexLock lock(mutex_);
        arrived_.emplace_back(device, std::move(outcome));
        changed_.NotifyOne();
    }

    using One = std::pair<size_t, host::CallOutcome>;
    std::optional<One> Take(std::chrono::milliseconds wait) TARN_EXCLUDES(mutex_) {
        host::MutexLock lock(mutex_);
        changed_.WaitUntil(lock, std::chrono::steady_clock::now() + wait,
                           [this]() TARN_REQUIRES(mutex_) { return !arrived_.empty(); });
        if (arrived_.empty()) {
            return std::nullopt;
        }
        One one = std::move(arrived_.front());
        arrived_.pop_front();
        return one;
    }

private:
    host::Mutex mutex_;
    host::Condition changed_;
    std::deque<One> arrived_ TARN_GUARDED_BY(mutex_);
};

} // namespace

Asked AskedFor(const host::describe::Method &method, std::vector<uint8_t> message, std::chrono::milliseconds deadline) {
    return {std::string(method.service), method.name, method.request->hash, std::move(message), deadline};
}

std::chrono::milliseconds DeadlineOf(const std::string &option) {
    return option.empty() ? host::Limits().deadline : ParseTime("--deadline", option);
}

void AskAll(Fleet &fleet, const std::vector<Hello> &devices, size_t atATime, Progress &progress,
            const std::function<Asked(const Hello &)> &ask, const std::function<bool(Answer &&)> &take) {
    constexpr std::chrono::milliseconds kLook{50};
    const Interrupts interrupts;
    const auto arrived = std::make_shared<Arrived>();
    std::vector<uint64_t> calls;
    const auto start = [&](size_t at) {
        const Asked asked = ask(devices[at]);
        calls.push_back(fleet.Caller().Start(
            devices[at].device,
            {.service = asked.service,
             .method = asked.method,
             .typeHash = asked.typeHash,
             .deadline = asked.deadline,
             .message = {reinterpret_cast<const char *>(asked.message.data()), asked.message.size()}},
            [arrived, at](host::CallOutcome &&outcome) { arrived->Add(at, std::move(outcome)); }));
    };
    const auto giveUp = [&] { std::ranges::for_each(calls, [&](uint64_t call) { fleet.Caller().Cancel(call); }); };
    for (size_t ended = 0; ended < devices.size();) {
        while (calls.size() < devices.size() && calls.size() - ended < atATime) {
            start(calls.size());
        }
        if (interrupts.Came()) {
            giveUp();
            throw Interrupted(fmt::format("interrupted after {} of {} devices, and cancelled", ended, devices.size()));
        }
        if (auto one = arrived->Take(kLook)) {
            progress.Set(++ended);
            if (!take({devices[one->first], std::move(one->second)})) {
                giveUp();
                return;
            }
        }
        progress.Show();
    }
}

void PrintLine(const host::describe::Json &line, Progress &progress) {
    progress.Hide();
    std::cout << line.dump() << std::endl;
}

host::describe::Json FailureLine(const Hello &device, const Failure &failure) {
    return {{"device", device.device}, {"failure", failure.what()}};
}

void Tally::Count(const Failure &failure) {
    ++(failure.Code() == kConnection || failure.Code() == kDeadline ? silent_ : refused_);
    worst_ = std::max(worst_, failure.Code());
}

std::string Tally::Text(size_t devices) const {
    const std::string text = fmt::format("{} {}, {} silent, {} refused", answered_, did_, silent_, refused_);
    return devices > All() ? fmt::format("{}, {} not asked", text, devices - All()) : text;
}

void Tally::End(size_t devices) const {
    if (HasFailures()) {
        throw Failure(worst_, Text(devices));
    }
    std::cerr << Text(devices) << "\n";
}

} // namespace ctl
