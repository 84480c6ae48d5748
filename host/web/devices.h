// The machines that are looked at: this one, or those of a fleet.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>

#include "host/fleet/gateway.h"
#include "host/osal/mutex.h"
#include "host/web/device.h"

namespace web {

class Devices {
public:
    // This machine's daemon, whose sockets are in that directory.
    Devices(const std::string &runDir, const std::string &tarnctl);

    // Those of a fleet; `who` is what they log of who asks. Throws fleet::Error.
    Devices(const fleet::Account &account, const std::string &who, std::string tarnctl);

    bool IsFleet() const { return fleet_ != nullptr; }

    // By name, or this machine's for an empty one. Throws std::invalid_argument for one that there can't be.
    std::shared_ptr<Device> Find(const std::string &name);

    // The topic "devices": all of the fleet, with what they said of themselves last.
    Live &All() { return all_; }

private:
    struct Fleet;
    struct Remote;
    using Clock = std::chrono::steady_clock;

    void DropUnused(Clock::time_point now) TARN_REQUIRES(mutex_);

    const std::string tarnctl_;
    const std::unique_ptr<Fleet, void (*)(Fleet *)> fleet_; // null: this machine only
    std::shared_ptr<Device> local_;
    host::Mutex mutex_;
    std::map<std::string, std::shared_ptr<Remote>> remotes_ TARN_GUARDED_BY(mutex_);
    Live all_;
};

} // namespace web
