// Carries the daemon's journal into the fleet's stream of events, each event once. The journal is the spool: what it
// does not hold any more when the server is there again is counted, and told as an event of the kind "gap".
#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <thread>

#include "host/fleet/wire.h"
#include "host/osal/mutex.h"
#include "host/relay/config.h"
#include "host/runtime/client.h"

namespace relay {

class Events {
public:
    Events(fleet::Connection &connection, const Config &config);
    Events(const Events &) = delete;
    Events &operator=(const Events &) = delete;
    ~Events();

    // The server is there, or another one: what is in its stream has to be asked.
    void Resume() TARN_EXCLUDES(mutex_);

private:
    // How far the stream has the journal.
    struct Position {
        std::string journal;   // empty: the stream has nothing of this device
        uint64_t next = 0;     // number of the event to go on with
        uint64_t sequence = 0; // of this device's last message in the stream
    };

    void Run() TARN_EXCLUDES(mutex_);
    Position Find() const;
    bool CarrySome(Position &position) TARN_EXCLUDES(mutex_);
    void CarryPage(const nlohmann::json &page, Position &position);
    void TellGap(const nlohmann::json &page, Position &position);
    void Add(const nlohmann::json &event, const std::string &id, Position &position);
    host::CallOutcome Ask(const std::string &question) TARN_EXCLUDES(mutex_);
    void Note(const std::string &trouble);
    bool Pause() TARN_EXCLUDES(mutex_);
    bool IsStopping() const TARN_EXCLUDES(mutex_);
    bool TakeStale() TARN_EXCLUDES(mutex_);

    fleet::Connection &connection_;
    const Config &config_;
    const std::string subject_;
    std::string trouble_; // that was logged last; the thread's

    mutable host::Mutex mutex_;
    host::Condition changed_;
    bool isStale_ TARN_GUARDED_BY(mutex_) = false; // the position
    bool stopping_ TARN_GUARDED_BY(mutex_) = false;
    uint64_t call_ TARN_GUARDED_BY(mutex_) = 0; // that waits for the daemon

    host::Client client_;
    std::thread thread_;
};

} // namespace relay
