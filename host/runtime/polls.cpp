#include "host/runtime/polls.h"

#include <cerrno>
#include <system_error>
#include <utility>

#include "host/runtime/session.h"

namespace host {

Polls::Polls(Loop &loop, OwnMethods *methods) : loop_(loop), methods_(methods) {}

void Polls::Open() {
    if (methods_ == nullptr) {
        return;
    }
    {
        const MutexLock lock(mutex_);
        open_ = true;
    }
    methods_->OnNews([this] { OnNews(); });
}

void Polls::Close() {
    Table polls;
    {
        const MutexLock lock(mutex_);
        if (!std::exchange(open_, false)) {
            return;
        }
        polls.swap(polls_);
    }
    methods_->OnNews({});
    AnswerNow(std::move(polls));
}

void Polls::Ask(const std::shared_ptr<Request> &request, OwnMethods::Question question) {
    const bool mayWait = request->Header().kind == FrameKind::kRequest;
    for (;;) {
        const uint64_t news = News();
        std::chrono::milliseconds wait{};
        if (!Waits(request, question, !mayWait, wait) || Enter(request, question, wait, news)) {
            return;
        }
    }
}

bool Polls::Waits(const std::shared_ptr<Request> &request, const OwnMethods::Question &question, bool last,
                  std::chrono::milliseconds &wait) const {
    try {
        const OwnMethods::Told told = methods_->Tell(question);
        wait = told.wait;
        if (wait.count() > 0 && !last) {
            return true;
        }
        request->Answer(told.text);
    } catch (const std::system_error &error) {
        request->AnswerStatus(static_cast<uint32_t>(error.code().value()), error.what());
    }
    return false;
}

// False where there has been news meanwhile. Where polls are closed, the request is answered.
bool Polls::Enter(const std::shared_ptr<Request> &request, const OwnMethods::Question &question,
                  std::chrono::milliseconds wait, uint64_t news) {
    MutexLock lock(mutex_);
    if (news_ != news) {
        return false;
    }
    const uint64_t number = ++lastNumber_;
    if (!open_) {
        lock.Unlock();
        AnswerNow({{number, {request, question, 0}}});
        return true;
    }
    DropOver();
    const uint64_t timer = loop_.At(loop_.Now() + wait, [this, number] { Expire(number); });
    polls_.emplace(number, Poll{request, question, timer});
    request->AwaitDeadline();
    return true;
}

void Polls::DropOver() {
    std::erase_if(polls_, [this](const auto &entry) {
        const Poll &poll = entry.second;
        if (!poll.request.expired()) {
            return false;
        }
        loop_.CancelTimer(poll.timer);
        return true;
    });
}

uint64_t Polls::News() const {
    const MutexLock lock(mutex_);
    return news_;
}

// On the thread of who has the news, which is not held up.
void Polls::OnNews() {
    const MutexLock lock(mutex_);
    ++news_;
    if (!polls_.empty()) {
        loop_.Post([this] { AskAgain(); });
    }
}

void Polls::AskAgain() {
    Table polls;
    {
        const MutexLock lock(mutex_);
        polls = polls_;
    }
    for (const auto &[number, poll] : polls) {
        const auto request = poll.request.lock();
        bool waits = false;
        if (request != nullptr) {
            request->GetSession().Confine([&, &question = poll.question] {
                std::chrono::milliseconds wait{};
                waits = Waits(request, question, false, wait);
            });
        }
        if (!waits) {
            loop_.CancelTimer(poll.timer);
            const MutexLock lock(mutex_);
            polls_.erase(number);
        }
    }
}

void Polls::Expire(uint64_t number) {
    Table expired;
    {
        const MutexLock lock(mutex_);
        if (auto poll = polls_.extract(number)) {
            expired.insert(std::move(poll));
        }
    }
    AnswerNow(std::move(expired));
}

void Polls::AnswerNow(Table polls) const {
    for (const auto &[number, poll] : polls) {
        if (const auto request = poll.request.lock()) {
            request->GetSession().Confine([&, &question = poll.question] {
                std::chrono::milliseconds wait{};
                Waits(request, question, true, wait);
            });
        }
    }
}

} // namespace host
