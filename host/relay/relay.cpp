#include "host/relay/relay.h"

#include <fmt/format.h>

#include "host/osal/log.h"

namespace relay {

Relay::Relay(Config config, std::function<void()> onEnd)
    : config_(std::move(config)), connection_(OptionsOf(std::move(onEnd))), requests_(connection_, config_),
      announcer_(connection_, requests_, config_), events_(connection_, config_) {
    {
        const host::MutexLock lock(mutex_);
        isReady_ = true;
    }
    if (connection_.IsConnected()) {
        OnConnected();
    }
}

Relay::~Relay() {
    const host::MutexLock lock(mutex_);
    isReady_ = false;
}

fleet::ConnectionOptions Relay::OptionsOf(std::function<void()> onEnd) {
    fleet::ConnectionOptions options;
    options.account = config_.account;
    options.name = "tarn-relay " + config_.device;
    options.persists = true;
    options.wait = config_.retry;
    options.onConnected = [this] { OnConnected(); };
    options.onDisconnected = [] { host::Log().warn("the fleet's server is away"); };
    options.onError = [](const std::string &what) { host::Log().warn("the fleet's server: {}", what); };
    options.onEnd = std::move(onEnd);
    return options;
}

void Relay::OnConnected() {
    const host::MutexLock lock(mutex_);
    if (isReady_) {
        host::Log().info("{} is in the fleet of {}", config_.device, config_.account.url);
        announcer_.Wake();
        events_.Resume();
    }
}

} // namespace relay
