// The relay: one connection to the fleet's server, and what is done over it.
#pragma once

#include <functional>
#include <string>

#include "host/fleet/nats.h"
#include "host/osal/mutex.h"
#include "host/relay/announcer.h"
#include "host/relay/config.h"
#include "host/relay/events.h"
#include "host/relay/requests.h"

namespace relay {

class Relay {
public:
    // `onEnd` is called, on any thread, when the server will never take this relay. Throws fleet::Error.
    Relay(Config config, std::function<void()> onEnd);
    Relay(const Relay &) = delete;
    Relay &operator=(const Relay &) = delete;
    ~Relay();

    bool IsConnected() const { return connection_.IsConnected(); }

private:
    fleet::ConnectionOptions OptionsOf(std::function<void()> onEnd);
    void OnConnected() TARN_EXCLUDES(mutex_);

    const Config config_;
    host::Mutex mutex_;
    bool isReady_ TARN_GUARDED_BY(mutex_) = false; // the parts below may be told

    fleet::Connection connection_;
    Requests requests_;
    Announcer announcer_;
    Events events_;
};

} // namespace relay
