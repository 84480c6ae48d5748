#include "host/web/devices.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

#include "host/fleet/hello.h"

namespace web {

using host::describe::Json;

struct Devices::Fleet {
    Fleet(const fleet::Account &account, const std::string &who)
        : connection({.account = account, .name = "tarn-web", .persists = true}), caller(connection, who) {}

    fleet::Connection connection;
    fleet::Caller caller;
};

// It is given up some time after it was looked at last.
struct Devices::Remote {
    Remote(fleet::Caller &caller, const std::string &name, const std::string &tarnctl)
        : gateway(caller, name), device(gateway.RunDir().string(), tarnctl) {}

    fleet::Gateway gateway;
    Device device;
    Clock::time_point used;
};

namespace {

std::optional<Live::Topic> NoTopic(const std::string & /*name*/) {
    return std::nullopt;
}

Json RowsOf(fleet::Connection &connection) {
    Json rows = Json::array();
    const auto now = std::chrono::system_clock::now();
    for (const fleet::Hello &hello : fleet::Hellos(connection)) {
        rows.push_back(hello.Row(now));
    }
    return {{"reply", {{"devices", std::move(rows)}}}};
}

} // namespace

Devices::Devices(const std::string &runDir, const std::string &tarnctl)
    : tarnctl_(tarnctl), fleet_(nullptr, [](Fleet *) {}), local_(std::make_shared<Device>(runDir, tarnctl)),
      all_(NoTopic) {}

Devices::Devices(const fleet::Account &account, const std::string &who, std::string tarnctl)
    : tarnctl_(std::move(tarnctl)), fleet_(new Fleet(account, who), [](Fleet *fleet) { delete fleet; }),
      all_([this](const std::string &name) {
          return name != "devices" ? std::nullopt
                                   : std::optional(Live::Topic{[this] { return RowsOf(fleet_->connection); },
                                                               std::chrono::seconds(2)});
      }) {}

void Devices::DropUnused(Clock::time_point now) {
    constexpr std::chrono::seconds kUnused{30};
    for (auto one = remotes_.begin(); one != remotes_.end();) {
        const std::shared_ptr<Remote> &remote = one->second;
        remote->used = remote.use_count() > 1 ? now : remote->used;
        one = now - remote->used > kUnused ? remotes_.erase(one) : std::next(one);
    }
}

std::shared_ptr<Device> Devices::Find(const std::string &name) {
    constexpr size_t kMost = 32;
    if (name.empty() == IsFleet()) {
        throw std::invalid_argument(IsFleet() ? "expected device=NAME" : "there is no fleet here, but one machine");
    }
    if (!IsFleet()) {
        return local_;
    }
    fleet::CheckDeviceName(name);
    const host::MutexLock lock(mutex_);
    const auto now = Clock::now();
    DropUnused(now);
    std::shared_ptr<Remote> &remote = remotes_[name];
    if (remote == nullptr) {
        if (remotes_.size() > kMost) {
            remotes_.erase(name);
            throw std::runtime_error(fmt::format("{} devices are looked at already, that is the most", kMost));
        }
        remote = std::make_shared<Remote>(fleet_->caller, name, tarnctl_);
    }
    remote->used = now;
    return {remote, &remote->device};
}

} // namespace web
