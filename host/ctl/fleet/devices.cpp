// devices: who is in the fleet, and how they are.
#include <fmt/format.h>
#include <fnmatch.h>

#include <algorithm>

#include "host/ctl/fleet/fleet.h"
#include "host/ctl/listing.h"
#include "host/ctl/tasks/tasks.h"
#include "host/ctl/units.h"
#include "host/describe/moment.h"

namespace ctl {

using host::describe::Json;
using Clock = std::chrono::system_clock;

namespace {

struct Options {
    std::string pattern = "*";
    ListOptions list;
};

// What it said of its health is what it was then.
std::string HealthOf(const Hello &hello, Clock::time_point now) {
    return hello.IsSilent(now) ? "silent" : hello.Text("health");
}

std::string UptimeOf(const Hello &hello) {
    constexpr uint64_t kMost = 1ULL << 40; // milliseconds: decades
    const uint64_t uptime = std::min(hello.Number("uptime_ms"), kMost);
    return uptime == 0 ? "?" : DurationText(std::chrono::milliseconds(uptime));
}

Json JsonOf(const Hello &hello, Clock::time_point now) {
    Json json = hello.said;
    json["device"] = hello.device;
    json["health"] = HealthOf(hello, now);
    json["seen"] = host::describe::Rfc3339(hello.seen);
    return json;
}

void PrintDevices(const Globals &globals, const Options &options) {
    Fleet fleet(globals);
    const Clock::time_point now = Clock::now();
    Listing listing(options.list, {"device", "health", "version", "uptime", "seen"});
    for (const Hello &hello : Hellos(fleet, options.pattern)) {
        const auto ago = std::max<Clock::duration>(now - hello.seen, {});
        listing.Add({hello.device, HealthOf(hello, now), hello.Text("version"), UptimeOf(hello),
                     DurationText(std::chrono::duration_cast<std::chrono::seconds>(ago)) + " ago"},
                    JsonOf(hello, now));
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

std::string Hello::Text(const char *member) const {
    const auto found = said.find(member);
    return found == said.end() || !found->is_string() ? "?" : found->get<std::string>();
}

uint64_t Hello::Number(const char *member) const {
    const auto found = said.find(member);
    return found == said.end() || !found->is_number_unsigned() ? 0 : found->get<uint64_t>();
}

bool Hello::IsSilent(Clock::time_point now) const {
    constexpr std::chrono::milliseconds kMost = std::chrono::hours(24), kOnTheWay{5000};
    const auto every = std::chrono::milliseconds(std::min(Number("hello_ms"), static_cast<uint64_t>(kMost.count())));
    return now - seen > 2 * every + kOnTheWay;
}

bool Fits(const std::string &device, const std::string &pattern) {
    return fnmatch(pattern.c_str(), device.c_str(), 0) == 0;
}

std::vector<Hello> Hellos(Fleet &fleet, const std::string &pattern) {
    std::vector<Hello> hellos;
    try {
        fleet.Server().Read(fleet::kHelloStream, fleet::SubjectOf("*", "hello"), {},
                            [&](const fleet::Message &message) {
                                Json said = Json::parse(message.Payload(), nullptr, false);
                                const std::string device = fleet::DeviceOf(message.Subject());
                                if (said.is_object() && Fits(device, pattern)) {
                                    hellos.push_back({device, message.Time(), std::move(said)});
                                }
                            });
    } catch (const fleet::Error &error) {
        throw Failure(kConnection, error.what());
    }
    std::ranges::sort(hellos, {}, &Hello::device);
    return hellos;
}

std::vector<Hello> SomeHellos(Fleet &fleet, const std::string &pattern) {
    std::vector<Hello> hellos = Hellos(fleet, pattern);
    if (hellos.empty()) {
        throw Failure(kUsage, fmt::format("{}: no such device; tarnctl devices lists those that there are", pattern));
    }
    return hellos;
}

void AddDevices(CLI::App &app, const Globals &globals) {
    const auto options = std::make_shared<Options>();
    CLI::App *const task = AddTask(app, "devices", "The devices of the fleet, and how they are",
                                   {"devices --fleet tls://fleet.example:4222", "devices 'press-*'"});
    task->add_option("DEVICES", options->pattern, kDevicesHelp)->option_text(" ");
    AddListOptions(*task, options->list);
    task->callback([&globals, options] { PrintDevices(globals, *options); });
}

} // namespace ctl
