// time: the daemon's clock and zone.
#include <fmt/format.h>

#include <ctime>
#include <iostream>

#include "host/ctl/listing.h"
#include "host/ctl/outcome.h"
#include "host/ctl/tasks/tasks.h"
#include "host/describe/moment.h"
#include "host/runtime/status.h"

namespace ctl {

using host::describe::Json;

namespace {

struct Options {
    std::vector<std::string> words;
    bool json = false;
};

// The clock itself is not told, but what was looked at just now has its time.
std::string Now(Server &server) {
    const Elements items = server.Ask("TarnPadsGetSystemHealthInfoByTarnd", Json{{"item", "load"}}).In("items");
    return items.wire.empty() ? "" : items.Named(items.wire.front())["looked_at"].get<std::string>();
}

void ShowTime(Server &server, bool json) {
    host::ServerHealth health;
    const host::CallOutcome outcome = AskHealth(server.GetClient(), "TarnSysdiagTarnd", 0, health);
    if (!outcome.Ok()) {
        throw FailureOf(host::kRuntimeService, "Health", outcome);
    }
    const std::string now = Now(server);
    const std::string here = host::describe::Rfc3339(std::chrono::system_clock::now());
    if (json) {
        std::cout << Json{{"time", now.empty() ? Json() : Json(now)}, {"zone", health.timezone}, {"here", here}}.dump()
                  << "\n";
        return;
    }
    Table table;
    table.Add({"daemon", now.empty() ? "unknown: the health item \"load\" is off" : now});
    table.Add({"zone", health.timezone.empty() ? "the system's" : health.timezone});
    table.Add({"here", here});
    table.Print(std::cout);
}

// How many minutes a zone of the system is east of Greenwich without daylight saving.
int OffsetOf(const std::string &zone) {
    if (!std::filesystem::exists("/usr/share/zoneinfo/" + zone) || zone.empty() || zone.starts_with('/')) {
        throw Failure(kUsage, fmt::format("{}: this system has no such zone; expected its offset behind it, in minutes "
                                          "east of Greenwich",
                                          zone.empty() ? "nothing" : zone));
    }
    setenv("TZ", zone.c_str(), 1);
    tzset();
    return static_cast<int>(-timezone / 60);
}

void Time(const Globals &globals, const Options &options) {
    const std::vector<std::string> &words = options.words;
    Server server(globals);
    if (words.empty()) {
        ShowTime(server, options.json);
    } else if (words.size() == 2 && words[0] == "set") {
        server.Ask("SetLocalTime", std::vector<std::string>{"time=" + words[1]});
    } else if ((words.size() == 2 || words.size() == 3) && words[0] == "zone") {
        const std::string offset = words.size() == 3 ? words[2] : std::to_string(OffsetOf(words[1]));
        server.Ask("SetTimezone", std::vector<std::string>{"zone.name=" + words[1], "zone.offset=" + offset});
    } else {
        throw Failure(kUsage, fmt::format("found {}, expected nothing, set TIME, or zone NAME [MINUTES]", words[0]));
    }
}

} // namespace

void AddTime(const Command &program, const Globals &globals) {
    const auto options = std::make_shared<Options>();
    const Command task =
        program.Add("time", "The daemon's clock and zone, or sets them",
                    {"time", "time set 2026-02-03T04:05:06+01:00", "time set +1h", "time zone Europe/Berlin"});
    task.Operand("WHAT", options->words,
                 "Nothing to see them; \"set TIME\"; \"zone NAME\", with the minutes east of Greenwich behind it "
                 "where this system doesn't know the zone");
    AddJson(task, options->json);
    task.Run([&globals, options] { Time(globals, *options); });
}

} // namespace ctl
