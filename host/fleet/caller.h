// Calls methods of devices.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "host/fleet/wire.h"
#include "host/osal/mutex.h"

namespace fleet {

// Of this process, as devices log it: "user@host".
std::string OwnName();

// All functions are thread-safe. Besides those of the calls themselves, a call may end with
//   113 EHOSTUNREACH  no relay of this device is connected to the server
//   110 ETIMEDOUT     no answer has come in time
class Caller {
public:
    using Done = std::function<void(host::CallOutcome &&)>;

    // `who` is what devices log of the caller. Throws Error.
    Caller(Connection &connection, std::string who);
    Caller(const Caller &) = delete;
    Caller &operator=(const Caller &) = delete;
    ~Caller(); // calls that have not ended are ended with ECANCELED

    // Sends, and calls back exactly once, on a thread of the caller's or the connection's: the callback does not block.
    // Returns the call's number for Cancel. A deadline of 0 is the default of local calls.
    uint64_t Start(const std::string &device, Request request, Done done);

    // Gives up a call that has not ended: the device is told.
    void Cancel(uint64_t call);

    // Sends and waits.
    host::CallOutcome Call(const std::string &device, const Request &request);

private:
    using Clock = std::chrono::steady_clock;
    struct Pending {
        std::string device;
        Clock::time_point deadline;
        Done done;
        Answer answer;
    };

    void Take(const Message &message) TARN_EXCLUDES(mutex_);
    void End(uint64_t call, host::CallOutcome &&outcome) TARN_EXCLUDES(mutex_);
    void Watch() TARN_EXCLUDES(mutex_);
    std::string ReplyOf(uint64_t call) const;

    Connection &connection_;
    const std::string who_;
    const std::string inbox_;

    host::Mutex mutex_;
    host::Condition changed_;
    std::map<uint64_t, Pending> pending_ TARN_GUARDED_BY(mutex_);
    uint64_t last_ TARN_GUARDED_BY(mutex_) = 0;
    Clock::time_point next_ TARN_GUARDED_BY(mutex_) = Clock::time_point::max(); // deadline
    bool stopping_ TARN_GUARDED_BY(mutex_) = false;
    std::thread watch_;
};

} // namespace fleet
