// fleet set: settings of many devices, so many at a time, and no further once one fails.
#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <map>

#include "host/ctl/fleet/commands.h"
#include "host/ctl/fleet/round.h"
#include "host/ctl/outcome.h"
#include "host/ctl/server.h"
#include "host/ctl/settings.h"

namespace ctl {

using namespace host::describe;

namespace {

// What was stated of a device's settings, as it was and as it is to be.
Json ChangesOf(const std::vector<Setting> &before, const std::vector<Setting> &after,
               std::span<const std::string> words) {
    const std::vector<SettingRow> old = RowsOf(before), wanted = RowsOf(after);
    Json changes = Json::array();
    for (size_t i = 0; i < wanted.size(); ++i) {
        const auto states = [&](const std::string &word) { return word.starts_with(wanted[i].name + "="); };
        if (std::ranges::any_of(words, states)) {
            changes.push_back(
                {{"name", wanted[i].name}, {"before", old[i].json.at("value")}, {"after", wanted[i].json.at("value")}});
        }
    }
    return changes;
}

// Some devices, which are all set before others are asked.
class Batch {
public:
    Batch(Fleet &fleet, std::vector<Hello> devices, std::span<const std::string> words, const FleetOptions &options,
          Progress &progress, Tally &tally)
        : fleet_(fleet), devices_(std::move(devices)), words_(words), options_(options), progress_(progress),
          tally_(tally) {}

    // On a dry run, all that a device would have to be sent is known then, and nothing is sent.
    void Set() {
        AskSettings();
        if (!options_.dryRun) {
            for (size_t step = 0; Send(step); ++step) {
            }
        }
        for (const auto &[device, plan] : plans_) {
            PrintLine({{"device", device}, {"changes", plan.changes}}, progress_);
            tally_.CountAnswer();
        }
    }

private:
    struct Request {
        const Method *method;
        std::vector<uint8_t> message;
    };
    struct Plan {
        std::vector<Request> requests;
        Json changes;
    };

    void AskSettings() {
        const Asked asked{.service = std::string(host::kRuntimeService),
                          .method = "Settings",
                          .message = {'{', '}'},
                          .deadline = DeadlineOf(options_.deadline)};
        Ask(
            devices_, [&](const Hello &) { return asked; },
            [&](const Answer &answer) {
                if (!answer.outcome.Ok()) {
                    throw FailureOf(host::kRuntimeService, "Settings", answer.outcome);
                }
                plans_.emplace(answer.device.device, PlanOf(answer.outcome));
            });
    }

    Plan PlanOf(const host::CallOutcome &outcome) const {
        std::vector<Setting> before;
        try {
            before = SettingsIn(Json::parse(outcome.bytes));
        } catch (const Json::exception &error) { // any device may say anything
            throw Failure(kRefused, fmt::format("its settings are not as expected: {}", error.what()));
        }
        std::vector<Setting> after = before;
        Change(after, words_);
        Plan plan{{}, ChangesOf(before, after, words_)};
        for (const Setting &setting : after) {
            if (setting.isStated) {
                plan.requests.push_back({setting.method, Encode(RecordOf(*setting.method, setting.request))});
            }
        }
        return plan;
    }

    // Of each device the request of so many steps ahead; false when none has as many.
    bool Send(size_t step) {
        std::vector<Hello> devices;
        std::ranges::copy_if(devices_, std::back_inserter(devices), [&](const Hello &device) {
            const auto plan = plans_.find(device.device);
            return plan != plans_.end() && step < plan->second.requests.size();
        });
        const auto requestOf = [&](const Hello &device) -> const Request & {
            return plans_.at(device.device).requests[step];
        };
        Ask(
            devices,
            [&](const Hello &device) {
                const Request &request = requestOf(device);
                return AskedFor(*request.method, request.message, DeadlineOf(options_.deadline));
            },
            [&](const Answer &answer) { ReplyTo(*requestOf(answer.device).method, answer.outcome); });
        return !devices.empty();
    }

    // One that fails has no plan any more.
    void Ask(const std::vector<Hello> &devices, const std::function<Asked(const Hello &)> &ask,
             const std::function<void(const Answer &)> &take) {
        AskAll(fleet_, devices, devices.size(), progress_, ask, [&](Answer &&answer) {
            try {
                take(answer);
            } catch (const Failure &failure) {
                PrintLine(FailureLine(answer.device, failure), progress_);
                tally_.Count(failure);
                plans_.erase(answer.device.device);
            }
            return true;
        });
    }

    Fleet &fleet_;
    const std::vector<Hello> devices_;
    const std::span<const std::string> words_;
    const FleetOptions &options_;
    Progress &progress_;
    Tally &tally_;
    std::map<std::string, Plan> plans_;
};

} // namespace

void SetFleet(const Globals &globals, const FleetOptions &options) {
    const auto words = std::span(options.words).subspan(1);
    RequireSettings(words);
    Fleet fleet(globals);
    const std::vector<Hello> devices = SomeHellos(fleet, options.devices);
    Tally tally(options.dryRun ? "would be set" : "set");
    for (size_t at = 0; at < devices.size() && !tally.HasFailures();) {
        const size_t number = std::min(options.atATime.value_or(kSetAtATime), devices.size() - at);
        const auto first = devices.begin() + static_cast<std::ptrdiff_t>(at);
        Progress progress(globals, fmt::format("{} to {} of {}", at + 1, at + number, devices.size()), number);
        Batch(fleet, {first, first + static_cast<std::ptrdiff_t>(number)}, words, options, progress, tally).Set();
        at += number;
    }
    tally.End(devices.size());
}

} // namespace ctl
