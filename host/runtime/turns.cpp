#include "host/runtime/turns.h"

#include <algorithm>

#include "host/runtime/session.h"

namespace host {

Turn Turns::Begin(std::shared_ptr<Session> session) {
    const MutexLock lock(mutex_);
    if (Charge worker = workers_.Take(session->GetUser())) {
        return {std::move(session), std::move(worker)};
    }
    WaitLocked(std::move(session));
    return {};
}

void Turns::Wait(std::shared_ptr<Session> session) {
    const MutexLock lock(mutex_);
    WaitLocked(std::move(session));
}

void Turns::WaitLocked(std::shared_ptr<Session> session) {
    User *const user = &session->GetUser();
    const auto line = std::ranges::find(lines_, user, &Line::user);
    if (line != lines_.end()) {
        line->sessions.push_back(std::move(session));
    } else {
        lines_.push_back({user, {std::move(session)}});
    }
}

Turn Turns::Next() {
    const MutexLock lock(mutex_);
    for (auto line = lines_.begin(); line != lines_.end(); ++line) {
        Charge worker = workers_.Take(*line->user);
        if (!worker) {
            continue;
        }
        Turn turn{std::move(line->sessions.front()), std::move(worker)};
        line->sessions.pop_front();
        if (line->sessions.empty()) {
            lines_.erase(line);
        } else {
            std::rotate(line, line + 1, lines_.end());
        }
        return turn;
    }
    return {};
}

bool Turns::HasNext() {
    const MutexLock lock(mutex_);
    return std::ranges::any_of(lines_, [this](const Line &line) { return workers_.Has(*line.user); });
}

} // namespace host
