// Whose requests run: on so many workers at most, of a user on no more than his share of them, and where some wait, of
// one user after the other.
#pragma once

#include <deque>
#include <memory>

#include "host/osal/mutex.h"
#include "host/runtime/quota.h"

namespace host {

class Session;

// A session with a request to serve, and the worker that does.
struct Turn {
    std::shared_ptr<Session> session; // null: none
    Charge worker;                    // given back before the session may go
};

class Turns {
public:
    explicit Turns(Quota &workers) : workers_(workers) {}
    Turns(const Turns &) = delete;
    Turns &operator=(const Turns &) = delete;

    // The session's turn if it has come. Else it waits in line.
    Turn Begin(std::shared_ptr<Session> session) TARN_EXCLUDES(mutex_);
    void Wait(std::shared_ptr<Session> session) TARN_EXCLUDES(mutex_);

    // The next in line whose turn has come, to be asked for whenever a turn has ended.
    Turn Next() TARN_EXCLUDES(mutex_);
    // Whether there is one.
    bool HasNext() TARN_EXCLUDES(mutex_);

private:
    // What waits of one user.
    struct Line {
        User *user;
        std::deque<std::shared_ptr<Session>> sessions;
    };

    void WaitLocked(std::shared_ptr<Session> session) TARN_REQUIRES(mutex_);

    Quota &workers_;
    Mutex mutex_;
    std::deque<Line> lines_ TARN_GUARDED_BY(mutex_); // none is empty; whose turn is next comes first
};

} // namespace host
