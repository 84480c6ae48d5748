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

void AddTopOptions(const Command &task, FleetOptions &options) {
    task.Option("-n", options.repetition.times, "N",
                "Of top: how often; default until q, or once when not on a terminal");
    task.Option("-d", options.delay, "TIME",
                "Of top: time between: 500ms, 2s, 1m; default " + TimeText(options.repetition.delay));
    task.Flag("--batch", options.repetition.batch, "Of top: text without control sequences, also on a terminal");
    task.Flag("--json", options.repetition.json,
              "Of top: an object a line for each view; the others are lines of JSON");
}

} // namespace

void AddFleet(const Command &program, const Globals &globals) {
    const auto options = std::make_shared<FleetOptions>();
    options->repetition.delay = std::chrono::seconds(2);
    const Command task = program.Add(
        "fleet", "Many devices at once: a question to all, their settings, who is busiest, what happened",
        {"fleet call GetKpiCpuInfo --devices 'press-*'", "fleet top",
         "fleet set cpu.begins-at=90% --devices 'press-*' --dry-run", "fleet events --since 1h --kind crash"});
    task.Operand("WHAT", options->words,
                 "\"call\" with a method and its request, as tarnctl call takes them; \"set\" with NAME=VALUE for "
                 "each, as tarnctl settings set; \"top\"; \"events\"")
        .Required();
    task.Option("--devices", options->devices, "DEVICES", kDevicesHelp);
    task.Option("--deadline", options->deadline, "TIME",
                "How long to wait for a device: 500ms, 2s, 1m; default " + TimeText(host::Limits().deadline));
    task.Option("--at-a-time", options->atATime, "N",
                fmt::format("So many devices; default {}, of set {}. Set goes on with the next when all of them "
                            "have taken it, and ends where one has not",
                            kCallsAtATime, kSetAtATime))
        .Range(1, 10'000);
    task.Flag("--dry-run", options->dryRun, "Of set: only tell what would be set");
    AddTopOptions(task, *options);
    task.Option("--since", options->since, "TIME", "Of events: those of the last so much time, as 1h, or since a time");
    task.Option("--kind", options->kinds, "KIND ...",
                "Of events: of these kinds only, as of tarnctl events; \"gap\" too");
    task.Run([&globals, options] { Run(globals, *options); });
}

} // namespace ctl
