// settings: thresholds and switches of the daemon, with whose they are.
#include <fmt/format.h>

#include "host/ctl/settings.h"

#include "host/ctl/listing.h"
#include "host/ctl/tasks/tasks.h"

namespace ctl {

namespace {

struct Options {
    std::vector<std::string> words;
    ListOptions list;
};

void List(Server &server, const Options &options) {
    Listing listing(options.list, {"name", "value", "source", "meaning"}, {"name", "value", "source"});
    for (const SettingRow &row : RowsOf(AskSettings(server))) {
        listing.Add({row.name, row.value, row.source, row.meaning}, row.json);
    }
    listing.Show("no settings");
}

void SetAll(Server &server, std::span<const std::string> words) {
    std::vector<Setting> settings = AskSettings(server);
    Change(settings, words);
    for (const Setting &setting : settings) {
        if (setting.isStated) {
            server.Ask(setting.method->name, setting.request);
        }
    }
}

void Settings(const Globals &globals, const Options &options) {
    const std::vector<std::string> &words = options.words;
    Server server(globals);
    if (words.empty() || (words.size() == 1 && words[0] == "list")) {
        List(server, options);
    } else if (words[0] == "set" && words.size() > 1) {
        SetAll(server, std::span(words).subspan(1));
    } else if (words[0] == "reset" && words.size() == 1) {
        server.Ask("ClearEnvAct", host::describe::Json{{"what", "settings"}});
    } else {
        throw Failure(kUsage, fmt::format("found {}, expected list, set NAME=VALUE..., or reset", words[0]));
    }
}

} // namespace

void AddSettings(const Command &program, const Globals &globals) {
    const auto options = std::make_shared<Options>();
    const Command task = program.Add("settings", "Thresholds and switches of the daemon, and whose they are",
                                     {"settings", "settings set cpu.begins-at=90% cpu.must-last=10s",
                                      "settings set health.disk.limit=85%", "settings reset"});
    task.Operand("WHAT", options->words,
                 "\"list\", as if nothing is given; \"set\" with NAME=VALUE for each; \"reset\" gives up what clients "
                 "have set of overloads, measurement and the clock for what the master has or the default");
    AddListOptions(task, options->list);
    task.Run([&globals, options] { Settings(globals, *options); });
}

} // namespace ctl
