#include "host/fleet/caller.h"

#include <fmt/format.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <future>
#include <utility>
#include <vector>

namespace fleet {

namespace {

host::CallOutcome Failed(int error, std::string text) {
    host::CallOutcome outcome;
    outcome.errCode = static_cast<uint32_t>(error);
    outcome.text = std::move(text);
    return outcome;
}

} // namespace

std::string OwnName() {
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    const passwd *const user = getpwuid(getuid());
    return fmt::format("{}@{}", user == nullptr ? std::to_string(getuid()) : user->pw_name, host);
}

Caller::Caller(Connection &connection, std::string who)
    : connection_(connection), who_(std::move(who)), inbox_(connection.NewInbox()) {
    connection_.Subscribe(inbox_ + ".*", [this](const Message &message) { Take(message); });
    watch_ = std::thread([this] { Watch(); });
}

Caller::~Caller() {
    connection_.Unsubscribe(inbox_ + ".*");
    std::map<uint64_t, Pending> left;
    {
        const host::MutexLock lock(mutex_);
        stopping_ = true;
        left.swap(pending_);
    }
    changed_.NotifyAll();
    watch_.join();
    for (auto &[call, pending] : left) {
        pending.done(Failed(ECANCELED, pending.device + ": the caller has gone"));
    }
}

std::string Caller::ReplyOf(uint64_t call) const {
    return fmt::format("{}.{}", inbox_, call);
}

uint64_t Caller::Start(const std::string &device, Request request, Done done) {
    if (request.deadline.count() <= 0) {
        request.deadline = host::Limits().deadline;
    }
    request.caller = who_;
    const Clock::time_point deadline = Clock::now() + request.deadline;
    uint64_t call = 0;
    {
        const host::MutexLock lock(mutex_);
        call = ++last_;
        pending_.emplace(call, Pending{device, deadline, std::move(done), {}});
        if (deadline < std::exchange(next_, std::min(next_, deadline))) {
            changed_.NotifyAll();
        }
    }
    try {
        if (const size_t most = connection_.MostPayload(); request.message.size() > most) {
            throw Error(fmt::format("request of {} bytes, expected at most {}", request.message.size(), most));
        }
        connection_.Publish(ToMessage(device, request, ReplyOf(call)));
    } catch (const Error &error) {
        End(call, Failed(ENOTCONN, fmt::format("{}: {}", device, error.what())));
    }
    return call;
}

host::CallOutcome Caller::Call(const std::string &device, const Request &request) {
    std::promise<host::CallOutcome> answer;
    Start(device, request, [&](host::CallOutcome &&outcome) { answer.set_value(std::move(outcome)); });
    return answer.get_future().get();
}

void Caller::Cancel(uint64_t call) {
    std::string device;
    {
        const host::MutexLock lock(mutex_);
        const auto found = pending_.find(call);
        if (found == pending_.end()) {
            return;
        }
        device = found->second.device;
    }
    try {
        connection_.Publish(SubjectOf(device, "cancel"), ReplyOf(call));
    } catch (const Error &) { // it ends by its deadline there
    }
    End(call, Failed(ECANCELED, device + ": the caller gave up"));
}

void Caller::Take(const Message &message) {
    const std::string subject = message.Subject();
    uint64_t call = 0;
    std::from_chars(subject.data() + inbox_.size() + 1, subject.data() + subject.size(), call);
    std::optional<host::CallOutcome> outcome;
    {
        const host::MutexLock lock(mutex_);
        const auto found = pending_.find(call);
        if (found == pending_.end()) {
            return;
        }
        outcome = message.TellsThatNobodyListens()
                      ? Failed(EHOSTUNREACH, found->second.device + ": no such device is connected")
                      : found->second.answer.Add(message);
    }
    if (outcome) {
        End(call, std::move(*outcome));
    }
}

void Caller::End(uint64_t call, host::CallOutcome &&outcome) {
    Done done;
    {
        const host::MutexLock lock(mutex_);
        const auto found = pending_.find(call);
        if (found == pending_.end()) {
            return;
        }
        done = std::move(found->second.done);
        pending_.erase(found);
    }
    done(std::move(outcome));
}

// Ends calls whose time is up.
void Caller::Watch() {
    host::MutexLock lock(mutex_);
    while (!stopping_) {
        const Clock::time_point now = Clock::now();
        std::vector<std::pair<uint64_t, std::string>> late;
        next_ = Clock::time_point::max();
        for (const auto &[call, pending] : pending_) {
            if (pending.deadline <= now) {
                late.emplace_back(call, pending.device);
            } else {
                next_ = std::min(next_, pending.deadline);
            }
        }
        lock.Unlock();
        for (const auto &[call, device] : late) {
            End(call, Failed(ETIMEDOUT, device + ": no answer in time"));
        }
        lock.Lock();
        // A day stands for ever, which the clocks below can't count with.
        const auto until = std::min(next_, now + std::chrono::hours(24));
        changed_.WaitUntil(lock, until, [&]() TARN_REQUIRES(mutex_) { return stopping_ || next_ < until; });
    }
}

} // namespace fleet
