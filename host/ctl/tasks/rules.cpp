// rules: which messages between applications pass.
#include <fmt/format.h>

#include "host/ctl/listing.h"
#include "host/ctl/process.h"
#include "host/ctl/tasks/tasks.h"

namespace ctl {

using host::describe::Json;

namespace {

struct Options {
    std::vector<std::string> words;
    std::string process;
    ListOptions list;
};

const char kSet[] = "UpdateMsgCtrlRuleTarnd";

void List(Server &server, const Options &options) {
    Json request = Json::object();
    if (!options.process.empty()) {
        request["process"] = FindProcess(server, options.process).pid;
    }
    const Elements rules = server.Ask("TarnGetMsgRuleInfoTarnd", request).In("rules");
    std::vector<std::string> columns;
    const Elements first = rules.Inside("definition");
    for (const host::meaning::Member &member : first.meaning.members) {
        columns.emplace_back(member.name);
    }
    columns.insert(columns.end(), {"matched", "dropped", "age"});
    Listing listing(options.list, columns,
                    {"rule", "priority", "action", "rate", "sender", "receiver", "message", "matched", "dropped"});
    for (size_t i = 0; i < rules.wire.size(); ++i) {
        std::vector<std::string> cells;
        for (const host::meaning::Member &member : first.meaning.members) {
            cells.push_back(first.Text(first.wire[i], member.name));
        }
        for (const char *const member : {"matched", "dropped", "age"}) {
            cells.push_back(rules.Text(rules.wire[i], member));
        }
        listing.Add(cells, rules.Named(rules.wire[i]));
    }
    listing.Show("no rules");
}

void Rules(const Globals &globals, const Options &options) {
    Server server(globals);
    const std::string word = options.words.empty() ? "list" : options.words.front();
    if (word == "list" && options.words.size() <= 1) {
        List(server, options);
    } else if (word == "clear" && options.words.size() == 1) {
        server.Ask("ClearMsgCtrlRuleTarnd");
    } else if (word == "set") {
        server.Ask(kSet, std::vector<std::string>(options.words.begin() + 1, options.words.end()));
    } else {
        throw Failure(kUsage, fmt::format("found {}, expected list, set NAME=VALUE..., or clear", word));
    }
}

} // namespace

void AddRules(const Command &program, const Globals &globals) {
    const auto options = std::make_shared<Options>();
    const Command task =
        program.Add("rules", "Which messages between applications pass",
                    {"rules", "rules --process worker", "rules set rule=7 action=limit rate=100 'sender=worker*'",
                     "rules set rule=8 action=drop message=debug", "rules clear"});
    task.Operand("WHAT", options->words,
                 "\"list\", as if nothing is given; \"set\" with NAME=VALUE for each member of a rule; \"clear\" for "
                 "all of them");
    task.Option("--process", options->process, kProcess, "The rules of this process's agent in place of the daemon's");
    AddListOptions(task, options->list);
    task.Run([&globals, options] { Rules(globals, *options); });
}

} // namespace ctl
