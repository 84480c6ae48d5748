// health: how the system is, or an application with an agent.
#include <fmt/format.h>

#include <iostream>

#include "host/ctl/listing.h"
#include "host/ctl/process.h"
#include "host/ctl/tasks/tasks.h"

namespace ctl {

using host::describe::Json;

namespace {

struct Options {
    std::string process;
    ListOptions list;
};

std::string Coloured(const Style &style, const std::string &level) {
    return level == "bad" ? style.Bad(level) : level == "degraded" ? style.Warning(level) : level;
}

void Health(const Globals &globals, const Options &options) {
    Server server(globals);
    const uint32_t pid = options.process.empty() ? 0 : FindProcess(server, options.process).pid;
    const Reply reply = server.Ask("TarnPadsGetSystemHealthInfoByTarnd", Json{{"process", pid}});
    const Elements items = reply.In("items");
    Listing listing(options.list, items.meaning, {"level", "name", "source", "found"});
    listing.Add(items);
    const Output output(!options.list.json);
    if (!options.list.json && !options.list.noHeaders) {
        std::cout << (reply["on"] == 0 ? "the health items are switched off: nothing is looked at\n"
                                       : Coloured(output.GetStyle(), reply.Text("level")) + " is the worst level\n");
    }
    if (!items.wire.empty()) {
        listing.Print(std::cout, output.GetStyle());
    }
}

} // namespace

void AddHealth(const Command &program, const Globals &globals) {
    const auto options = std::make_shared<Options>();
    const Command task = program.Add("health", "How the system is, or an application with an agent",
                                     {"health", "health worker", "settings set health.disk.limit=850"});
    task.Operand(kProcess, options->process, "A process with an agent, as with stack; the system if not given");
    AddListOptions(task, options->list);
    task.Run([&globals, options] { Health(globals, *options); });
}

} // namespace ctl
