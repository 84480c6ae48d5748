// measure: whether what runs is what was recorded.
#include <fmt/format.h>

#include <iostream>

#include "host/ctl/interrupt.h"
#include "host/ctl/listing.h"
#include "host/ctl/progress.h"
#include "host/ctl/tasks/tasks.h"
#include "host/meaning/choices.h"

namespace ctl {

using host::describe::Json;

namespace {

namespace measurement_state = host::meaning::measurement_state;

struct Options {
    std::string what = "run";
    bool follow = false, json = false;
};

std::string TextOf(const Reply &reply) {
    switch (reply["state"].get<uint32_t>()) {
    case measurement_state::kNone:
        return "nothing was measured yet";
    case measurement_state::kNoBaseline:
        return "there is nothing recorded to compare with: tarnctl measure record records what runs now";
    default:
        return reply.Text("state") + ": " + reply.Text("text");
    }
}

void Print(const Reply &reply, bool json) {
    if (json) {
        std::cout << reply.Named().dump() << "\n";
    } else {
        std::cout << TextOf(reply) << "\n";
    }
}

// Until it is done; the first interrupt has the daemon give it up.
Reply WaitForEnd(const Globals &globals, Server &server, bool follow) {
    const Interrupts interrupts;
    Progress progress(globals, "measuring");
    uint64_t told = 0;
    for (;;) {
        Reply reply = server.Ask("TarnGetDimMeasRstByTarnd");
        const auto differences = reply["differences"].get<uint64_t>();
        if (reply["state"].get<uint32_t>() != measurement_state::kRuns) {
            return reply;
        }
        if (interrupts.Came()) {
            server.Ask("TarnSetDimOpration", Json{{"operation", "cancel"}});
            throw Interrupted("interrupted, and the measurement cancelled");
        }
        if (follow && differences != told) {
            std::cout << differences << " files differ so far" << std::endl;
            told = differences;
        }
        progress.Set(0, differences == 0 ? "no difference so far" : fmt::format("{} files differ so far", differences));
        interrupts.Sleep(std::chrono::milliseconds(100));
    }
}

void Measure(const Globals &globals, const Options &options) {
    Server server(globals);
    if (options.what == "run") {
        server.Ask("TarnSetDimOpration", Json{{"operation", "start"}});
        Print(WaitForEnd(globals, server, options.follow), options.json);
    } else if (options.what == "result") {
        Print(options.follow ? WaitForEnd(globals, server, true) : server.Ask("TarnGetDimMeasRstByTarnd"),
              options.json);
    } else { // as the method's operations are called
        server.Ask("TarnSetDimOpration", Json{{"operation", options.what}});
        Print(server.Ask("TarnGetDimMeasRstByTarnd"), options.json);
    }
}

} // namespace

void AddMeasure(const Command &program, const Globals &globals) {
    const auto options = std::make_shared<Options>();
    const Command task = program.Add("measure", "Whether the programs that run are those that were recorded",
                                     {"measure record", "measure", "measure result --follow", "measure cancel"});
    task.Operand("WHAT", options->what,
                 "\"run\", as if nothing is given: measures and waits; \"record\" records what is compared with; "
                 "\"result\" of the last one; \"cancel\" or \"forget\"")
        .OneOf({"run", "record", "result", "cancel", "forget"});
    task.Flag("--follow", options->follow, "A line whenever more files differ, until it is done");
    AddJson(task, options->json);
    task.Run([&globals, options] { Measure(globals, *options); });
}

} // namespace ctl
