// devices: who is in the fleet, and how they are.
#include <fmt/format.h>
#include <fnmatch.h>

#include <algorithm>

#include "host/ctl/fleet/fleet.h"
#include "host/ctl/listing.h"
#include "host/ctl/tasks/tasks.h"
#include "host/ctl/units.h"

namespace ctl {

using Clock = std::chrono::system_clock;

namespace {

struct Options {
    std::string pattern = "*";
    ListOptions list;
};

std::string UptimeOf(const Hello &hello) {
    constexpr uint64_t kMost = 1ULL << 40; // milliseconds: decades
    const uint64_t uptime = std::min(hello.Number("uptime_ms"), kMost);
    return uptime == 0 ? "?" : DurationText(std::chrono::milliseconds(uptime));
}

void PrintDevices(const Globals &globals, const Options &options) {
    Fleet fleet(globals);
    const Clock::time_point now = Clock::now();
    Listing listing(options.list, {"device", "health", "version", "uptime", "seen"});
    for (const Hello &hello : Hellos(fleet, options.pattern)) {
        const auto ago = std::max<Clock::duration>(now - hello.seen, {});
        listing.Add({hello.device, hello.Health(now), hello.Text("version"), UptimeOf(hello),
                     DurationText(std::chrono::duration_cast<std::chrono::seconds>(ago)) + " ago"},
                    hello.Row(now));
    }
    listing.Show("no such device has ever said that it is there");
}

std::string CheckedName(const std::string &device) {
    try {
        fleet::CheckDeviceName(device);
        return device;
    } catch (const std::invalid_argument &error) {
        throw Failure(kUsage, fmt::format("--device: {}", error.what()));
    }
}

} // namespace

Device::Device(const Globals &globals, const std::string &name)
    : fleet_(globals), gateway_(fleet_.Caller(), CheckedName(name)) {}

bool Fits(const std::string &device, const std::string &pattern) {
    return fnmatch(pattern.c_str(), device.c_str(), 0) == 0;
}

std::vector<Hello> Hellos(Fleet &fleet, const std::string &pattern) {
    try {
        std::vector<Hello> hellos = fleet::Hellos(fleet.Server());
        std::erase_if(hellos, [&](const Hello &hello) { return !Fits(hello.device, pattern); });
        return hellos;
    } catch (const fleet::Error &error) {
        throw Failure(kConnection, error.what());
    }
}

std::vector<Hello> SomeHellos(Fleet &fleet, const std::string &pattern) {
    std::vector<Hello> hellos = Hellos(fleet, pattern);
    if (hellos.empty()) {
        throw Failure(kUsage, fmt::format("{}: no such device; tarnctl devices lists those that there are", pattern));
    }
    return hellos;
}

void AddDevices(const Command &program, const Globals &globals) {
    const auto options = std::make_shared<Options>();
    const Command task = program.Add("devices", "The devices of the fleet, and how they are",
                                     {"devices --fleet tls://fleet.example:4222", "devices 'press-*'"});
    task.Operand("DEVICES", options->pattern, kDevicesHelp);
    AddListOptions(task, options->list);
    task.Run([&globals, options] { PrintDevices(globals, *options); });
}

} // namespace ctl
