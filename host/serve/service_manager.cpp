#include "host/serve/service_manager.h"

#include <fmt/format.h>
#include <systemd/sd-daemon.h>

#include <cstring>
#include <ctime>

#include "host/osal/log.h"
#include "host/osal/text.h"

namespace host::service_manager {

namespace {

void Tell(const std::string &state) {
    if (const int result = sd_notify(0, state.c_str()); result < 0) {
        Log().warn("the service manager can't be told \"{}\": {}", state, strerrordesc_np(-result));
    }
}

} // namespace

void TellReady(const std::string &status) {
    Tell(fmt::format("READY=1\nSTATUS={}", LineOfText(status)));
}

void TellReloading() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const auto since = std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
    Tell(fmt::format("RELOADING=1\nMONOTONIC_USEC={}",
                     std::chrono::duration_cast<std::chrono::microseconds>(since).count()));
}

void TellStopping() {
    Tell("STOPPING=1");
}

std::optional<std::chrono::microseconds> WatchdogTime() {
    uint64_t microseconds = 0;
    if (sd_watchdog_enabled(0, &microseconds) <= 0) {
        return {};
    }
    return std::chrono::microseconds(microseconds);
}

void TellThatItWorks() {
    Tell("WATCHDOG=1");
}

} // namespace host::service_manager
