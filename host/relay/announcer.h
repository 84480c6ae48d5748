// Says that the device is there, what it is and how it is; and notices another of the same name.
#pragma once

#include <chrono>
#include <string>
#include <thread>

#include "host/fleet/wire.h"
#include "host/osal/mutex.h"
#include "host/relay/config.h"
#include "host/relay/requests.h"

namespace relay {

class Announcer {
public:
    // Asks the daemon how it is on a thread of its own.
    Announcer(fleet::Connection &connection, Requests &requests, const Config &config);
    Announcer(const Announcer &) = delete;
    Announcer &operator=(const Announcer &) = delete;
    ~Announcer();

    // Says it now, and not when it is time.
    void Wake() TARN_EXCLUDES(mutex_);

private:
    using Clock = std::chrono::steady_clock;

    void Run() TARN_EXCLUDES(mutex_);
    void Say();
    void Hear(const fleet::Message &message) TARN_EXCLUDES(mutex_);
    void ForgetOther() TARN_EXCLUDES(mutex_);
    void AnswerDiscovery(const fleet::Message &message, const std::string &kind);

    fleet::Connection &connection_;
    Requests &requests_;
    const Config &config_;
    const std::string instance_; // of this relay, of all that have ever run
    const Clock::time_point started_ = Clock::now();
    host::Client client_;
    std::vector<std::string> subjects_;

    host::Mutex mutex_;
    host::Condition changed_;
    bool isDue_ TARN_GUARDED_BY(mutex_) = true;
    bool stopping_ TARN_GUARDED_BY(mutex_) = false;
    std::string other_ TARN_GUARDED_BY(mutex_); // instance of the same name; empty: none
    Clock::time_point heard_ TARN_GUARDED_BY(mutex_);
    std::thread thread_;
};

} // namespace relay
