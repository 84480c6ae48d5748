// fleet: what is done with many devices at once.
#include <fmt/format.h>

#include "host/ctl/fleet/commands.h"

#include "host/ctl/fleet/fleet.h"
#include "host/ctl/tasks/tasks.h"

namespace ctl {

namespace {

void Run(const Globals &globals, const FleetOptions &options) {
    const std::string &what = options.words.front();
    if (what == "call" && options.words.size() > 1) {
        CallFleet(globals, options);
    } else if (what == "events" && options.words.size() == 1) {
        PrintFleetEvents(globals, options);
    } else {
        throw Failure(kUsage, fmt::format("found {}, expected call METHOD REQUEST, or events", what));
    }
}

} // namespace

void AddFleet(CLI::App &app, const Globals &globals) {
    const auto options = std::make_shared<FleetOptions>();
    CLI::App *const task = AddTask(
        app, "fleet", "The same question to many devices, an object a line as answers come; and the events of all",
        {"fleet call GetKpiCpuInfo --devices 'press-*'", "fleet events --since 1h --kind crash"});
    task->add_option("WHAT", options->words,
                     "\"call\" with a method and its request, as tarnctl call takes them; \"events\"")
        ->required()
        ->option_text(" ");
    task->add_option("--devices", options->devices, kDevicesHelp)->option_text("DEVICES");
    task->add_option("--deadline", options->deadline,
                     "Of call: how long to wait for a device: 500ms, 2s, 1m; default " +
                         TimeText(host::Limits().deadline))
        ->option_text("TIME");
    task->add_option("--at-a-time", options->atATime,
                     fmt::format("Of call: so many devices; default {}", options->atATime))
        ->option_text("N")
        ->check(CLI::Range(size_t{1}, size_t{10'000}));
    task->add_option("--since", options->since, "Of events: those of the last so much time, as 1h, or since a time")
        ->option_text("TIME");
    task->add_option("--kind", options->kinds, "Of events: of these kinds only, as of tarnctl events; \"gap\" too")
        ->option_text("KIND ...");
    task->callback([&globals, options] { Run(globals, *options); });
}

} // namespace ctl
