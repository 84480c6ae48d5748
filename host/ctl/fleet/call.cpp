// fleet call: a method of many devices.
#include <fmt/format.h>

#include <cstdlib>
#include <iostream>

#include "host/ctl/fleet/commands.h"
#include "host/ctl/fleet/round.h"
#include "host/ctl/outcome.h"
#include "host/ctl/request.h"
#include "host/ctl/server.h"
#include "host/ctl/tasks/tasks.h"
#include "host/meaning/meaning.h"

namespace ctl {

using namespace host::describe;

namespace {

// Local times are those of a device's clock: this program takes its zone, or its own again where that is not known.
class Zones {
public:
    explicit Zones(const Method &method) : areUsed_(HasLocalTimes(method)) {
        const char *const own = getenv("TZ");
        own_ = own == nullptr ? ":/etc/localtime" : own;
    }

    bool AreUsed() const { return areUsed_; }
    void Use(const Hello &device) const {
        if (areUsed_) {
            const std::string zone = device.Text("timezone");
            UseZone(zone.empty() || zone == "?" ? own_ : zone);
        }
    }

private:
    const bool areUsed_;
    std::string own_;
};

// The request, which is another for each zone where it has local times.
class Questions {
public:
    Questions(const Method &method, const Zones &zones, const FleetOptions &options)
        : method_(method), zones_(zones), words_(options.words.begin() + 2, options.words.end()),
          deadline_(DeadlineOf(options.deadline)), message_(Encode(ReadRequest(method_, words_))) {}

    Asked For(const Hello &device) const {
        zones_.Use(device);
        return AskedFor(method_, zones_.AreUsed() ? Encode(ReadRequest(method_, words_)) : message_, deadline_);
    }

private:
    const Method &method_;
    const Zones &zones_;
    const std::vector<std::string> words_;
    const std::chrono::milliseconds deadline_;
    const std::vector<uint8_t> message_;
};

// The reply as a line; throws Failure for what is none, or tells of a failure.
Json ReplyOf(const Method &method, const Zones &zones, const Answer &answer) {
    zones.Use(answer.device); // before members are put in words
    const Reply reply = ReplyTo(method, answer.outcome);
    Json line{{"device", answer.device.device}};
    if (method.response != nullptr) {
        line["reply"] = reply.Named();
    }
    return line;
}

} // namespace

void CallFleet(const Globals &globals, const FleetOptions &options) {
    const Method &method = RequireMethod(options.words[1]);
    const Zones zones(method);
    const Questions questions(method, zones, options);
    Fleet fleet(globals);
    const std::vector<Hello> devices = SomeHellos(fleet, options.devices);
    Progress progress(globals, method.name, devices.size());
    Tally tally;
    const auto take = [&](Answer &&answer) {
        try {
            PrintLine(ReplyOf(method, zones, answer), progress);
            tally.CountAnswer();
        } catch (const Failure &failure) {
            PrintLine(FailureLine(answer.device, failure), progress);
            tally.Count(failure);
        }
        return true;
    };
    AskAll(
        fleet, devices, options.atATime.value_or(kCallsAtATime), progress,
        [&](const Hello &device) { return questions.For(device); }, take);
    progress.Hide();
    tally.End(devices.size());
}

} // namespace ctl
