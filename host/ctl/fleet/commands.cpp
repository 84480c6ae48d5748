// fleet: what is done with many devices at once.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include "host/ctl/fleet/commands.h"

#include "host/ctl/fleet/fleet.h"
#include "host/ctl/tasks/tasks.h"

namespace ctl {

namespace {

void Run(const Globals &globals, FleetOptions &options) {
    const std::string &what = options.words.front();
    if (!options.delay.empty()) {
        options.repetition.delay = ParseTime("-d", options.delay);
    }
    if (what == "call" && options.words.size() > 1) {
        CallFleet(globals, options);
    } else if (what == "set" && options.words.size() > 1) {
        SetFleet(globals, options);
    } else if (what == "top" && options.words.size() == 1) {
        TopOfFleet(globals, options);
    } else if (what == "events" && options.words.size() == 1) {
        PrintFleetEvents(globals, options);
    } else {
        throw Failure(kUsage, fmt::format("found {}, expected call METHOD REQUEST, set NAME=VALUE..., top, or events",
                                          fmt::join(options.words, " ")));
    }
}

void AddTopOptions(CLI::App &task, FleetOptions &options) {
    task.add_option("-n", options.repetition.times,
                    "Of top: how often; default until q, or once when not on a terminal")
        ->option_text("N");
    task.add_option("-d", options.delay,
                    "Of top: time between: 500ms, 2s, 1m; default " + TimeText(options.repetition.delay))
        ->option_text("TIME");
    task.add_flag("--batch", options.repetition.batch, "Of top: text without control sequences, also on a terminal");
    task.add_flag("--json", options.repetition.json,
                  "Of top: an object a line for each view; the others are lines of JSON");
}

} // namespace

void AddFleet(CLI::App &app, const Globals &globals) {
    const auto options = std::make_shared<FleetOptions>();
    options->repetition.delay = std::chrono::seconds(2);
    CLI::App *const task =
        AddTask(app, "fleet", "Many devices at once: a question to all, their settings, who is busiest, what happened",
                {"fleet call GetKpiCpuInfo --devices 'press-*'", "fleet top",
                 "fleet set cpu.begins-at=90% --devices 'press-*' --dry-run", "fleet events --since 1h --kind crash"});
    task->add_option("WHAT", options->words,
                     "\"call\" with a method and its request, as tarnctl call takes them; \"set\" with NAME=VALUE for "
                     "each, as tarnctl settings set; \"top\"; \"events\"")
        ->required()
        ->option_text(" ");
    task->add_option("--devices", options->devices, kDevicesHelp)->option_text("DEVICES");
    task->add_option("--deadline", options->deadline,
                     "How long to wait for a device: 500ms, 2s, 1m; default " + TimeText(host::Limits().deadline))
        ->option_text("TIME");
    task->add_option("--at-a-time", options->atATime,
                     fmt::format("So many devices; default {}, of set {}. Set goes on with the next when all of them "
                                 "have taken it, and ends where one has not",
                                 kCallsAtATime, kSetAtATime))
        ->option_text("N")
        ->check(CLI::Range(size_t{1}, size_t{10'000}));
    task->add_flag("--dry-run", options->dryRun, "Of set: only tell what would be set");
    AddTopOptions(*task, *options);
    task->add_option("--since", options->since, "Of events: those of the last so much time, as 1h, or since a time")
        ->option_text("TIME");
    task->add_option("--kind", options->kinds, "Of events: of these kinds only, as of tarnctl events; \"gap\" too")
        ->option_text("KIND ...");
    task->callback([&globals, options] { Run(globals, *options); });
}

} // namespace ctl
