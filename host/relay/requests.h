// Passes requests of the fleet on to the services of this device, and their answers back.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "host/fleet/wire.h"
#include "host/osal/mutex.h"
#include "host/relay/config.h"
#include "host/runtime/client.h"
#include "host/runtime/peer_log.h"

namespace relay {

class Requests {
public:
    // Takes requests until it is destroyed.
    Requests(fleet::Connection &connection, const Config &config);
    Requests(const Requests &) = delete;
    Requests &operator=(const Requests &) = delete;
    ~Requests();

    // From now on none is passed on, for this reason; without one, they are again.
    void Refuse(std::string reason) TARN_EXCLUDES(mutex_);

    struct Counts {
        uint64_t requests = 0; // that have come
        uint64_t errors = 0;   // that ended with an error, refused ones too
        std::string lastError;
    };
    Counts GetCounts() const TARN_EXCLUDES(mutex_);

    // To be called more often than once a minute: what was refused again and again is in the log.
    void SummarizeRefusals() { log_.Summarize(host::PeerLog::Clock::now()); }

private:
    void Take(const fleet::Message &message) TARN_EXCLUDES(mutex_);
    void PassOn(const fleet::Request &request, const std::string &reply) TARN_EXCLUDES(mutex_);
    void GiveUp(const std::string &reply) TARN_EXCLUDES(mutex_);
    host::CallOutcome Check(const fleet::Request &request) const TARN_EXCLUDES(mutex_);
    void Reply(const std::string &to, const host::CallOutcome &outcome) TARN_EXCLUDES(mutex_);
    void LogRefusal(const fleet::Request &request, const host::CallOutcome &outcome);

    fleet::Connection &connection_;
    const Config &config_;
    const std::string calls_;   // subjects
    const std::string cancels_; //
    host::PeerLog log_;

    mutable host::Mutex mutex_;
    std::string refusal_ TARN_GUARDED_BY(mutex_);
    std::map<uint64_t, std::string> replies_ TARN_GUARDED_BY(mutex_);  // of what is in flight: where its answer goes,
    std::map<std::string, uint64_t> inFlight_ TARN_GUARDED_BY(mutex_); // and the number of its call
    uint64_t last_ TARN_GUARDED_BY(mutex_) = 0;
    Counts counts_ TARN_GUARDED_BY(mutex_);

    host::Client client_; // calls back until it is gone
};

} // namespace relay
