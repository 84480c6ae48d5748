// fleet events: what happened on many devices, from the fleet's stream.
#include <algorithm>
#include <iostream>

#include "host/ctl/fleet/commands.h"
#include "host/ctl/fleet/fleet.h"
#include "host/ctl/tasks/tasks.h"

namespace ctl {

using host::describe::Json;

namespace {

using Time = std::chrono::system_clock::time_point;

class Wanted {
public:
    Wanted(const FleetOptions &options, std::optional<Time> since) : options_(options), since_(since) {}

    bool Has(const Json &event, const std::string &device) const {
        return event.is_object() && Fits(device, options_.devices) && IsOfKind(event) && IsLateEnough(event);
    }

private:
    bool IsOfKind(const Json &event) const {
        return options_.kinds.empty() || std::ranges::any_of(options_.kinds, [&](const std::string &kind) {
                   return event.value("kind", Json()) == kind;
               });
    }
    // The stream has had it for no longer.
    bool IsLateEnough(const Json &event) const {
        const Json time = event.value("time_ms", Json());
        return !since_ || !time.is_number_integer() || Time(std::chrono::milliseconds(time.get<int64_t>())) >= *since_;
    }

    const FleetOptions &options_;
    const std::optional<Time> since_;
};

} // namespace

void PrintFleetEvents(const Globals &globals, const FleetOptions &options) {
    const std::optional<Time> since =
        options.since.empty() ? std::nullopt : std::optional(SinceOf("--since", options.since));
    const Wanted wanted(options, since);
    Fleet fleet(globals);
    try {
        fleet.Server().Read(fleet::kEventStream, fleet::SubjectOf("*", "event"), since,
                            [&](const fleet::Message &message) {
                                const Json event = Json::parse(message.Payload(), nullptr, false);
                                if (wanted.Has(event, fleet::DeviceOf(message.Subject()))) {
                                    std::cout << event.dump() << "\n";
                                }
                            });
    } catch (const fleet::Error &error) {
        throw Failure(kConnection, error.what());
    }
}

} // namespace ctl
