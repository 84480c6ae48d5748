// settings: thresholds and switches of the daemon, with whose they are.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <iostream>
#include <map>

#include "host/ctl/listing.h"
#include "host/ctl/tasks/tasks.h"
#include "host/describe/named.h"
#include "host/meaning/choices.h"
#include "host/meaning/meaning.h"

namespace ctl {

using host::describe::DidYouMean;
using host::describe::Json;
using host::meaning::Member;

namespace {

struct Options {
    std::vector<std::string> words;
    ListOptions list;
};

// The members of a method's request are settings: "cpu." and the name of one.
struct Group {
    const char *name;
    const char *set;
    const char *get; // which has the same members; null where nothing tells them
};
constexpr Group kGroups[] = {
    {"cpu", "SysOvLoadCpuThresholdSet", "GetSysCpuOverloadCfg"},
    {"memory", "SysOvLoadMemThresholdSet", "GetSysMemOverloadCfg"},
    {"starvation", "SetTaskSwitch", nullptr},
    {"starvation", "SetTaskStarvThreshold", nullptr},
    {"measurement", "TarnSetDimTimeCfgByTarnd", nullptr},
    {"measurement", "TarnSetDimWorkModeCfgByTarnd", nullptr},
    {"date", "SetDateFormat", nullptr},
    {"health", "TarnPadsSetPadsGlobalSwitchByTarnd", "TarnPadsGetSystemHealthInfoByTarnd"},
};
constexpr char kSetItem[] = "TarnPadsSetPadsAppFunSwitchByTarnd"; // health.disk.limit

std::span<const Member> MembersOf(const Group &group) {
    return RequireMethod(group.set).meaning->request->members;
}

// ---- What is set ----

// "thresholds from a client"
std::string SourceOf(const std::string &explanation) {
    const size_t from = explanation.find(" from ");
    return from == explanation.npos ? "-" : explanation.substr(from + 6);
}

// What 0 means is told as the setting says it.
std::string ValueOf(const Reply &reply, const Member &member) {
    const bool isZero = reply[member.name] == 0 && !member.value.zero.empty();
    return isZero ? std::string(member.value.zero) : reply.Text(member.name);
}

void AddGroup(Server &server, const Group &group, Listing &listing) {
    const std::optional<Reply> reply = group.get == nullptr ? std::nullopt : std::optional(server.Ask(group.get));
    const Json named = reply ? reply->Named() : Json();
    for (const Member &member : MembersOf(group)) {
        const std::string name = fmt::format("{}.{}", group.name, member.name);
        const std::string source = reply ? SourceOf(reply->explanation) : "-";
        listing.Add({name, reply ? ValueOf(*reply, member) : "not told", source, std::string(member.sentence)},
                    {{"name", name},
                     {"value", reply ? named.at(host::describe::KeyOf(member)) : Json()},
                     {"source", source == "-" ? Json() : Json(source)}});
    }
}

// An item that is on is looked at, and what is found ends with its limit.
void AddItems(Server &server, Listing &listing) {
    namespace items = host::meaning::system_health_item;
    const Elements looked = server.Ask("TarnPadsGetSystemHealthInfoByTarnd").In("items");
    for (const host::meaning::Choice &item : items::kAll) {
        const auto found = std::ranges::find_if(looked.wire, [&](const Json &one) {
            const std::string name = looked.Text(one, "name");
            return name.substr(0, name.find(' ')) == item.name;
        });
        const bool isOn = found != looked.wire.end();
        const std::string text = isOn ? looked.Text(*found, "found") : "";
        const size_t limit = text.rfind("limit ");
        const std::string limitText = limit == text.npos ? "not told" : text.substr(limit + 6);
        const std::string name = fmt::format("health.{}", item.name);
        const bool isLooked = item != items::kAgents && item != items::kCpuEvent && item != items::kCpuEventTime;
        const std::string state = !isLooked ? "not told" : isOn ? "on" : "off";
        listing.Add({name + ".on", state, "-", "Whether it is looked at."},
                    {{"name", name + ".on"}, {"value", isLooked ? Json(isOn) : Json()}, {"source", nullptr}});
        listing.Add(
            {name + ".limit", limitText, "-", std::string(item.sentence)},
            {{"name", name + ".limit"}, {"value", limit == text.npos ? Json() : Json(limitText)}, {"source", nullptr}});
    }
}

void List(Server &server, const Options &options) {
    Listing listing(options.list, {"name", "value", "source", "meaning"}, {"name", "value", "source"});
    for (const Group &group : kGroups) {
        AddGroup(server, group, listing);
    }
    AddItems(server, listing);
    listing.Show("no settings");
}

// ---- Setting ----

// "cpu.begins-at=90%", and whose it is.
struct Wish {
    std::string group, member, value;
};

Wish WishOf(const std::string &word) {
    const size_t sign = word.find('='), dot = word.substr(0, sign).rfind('.');
    if (sign == word.npos || dot == word.npos || dot == 0) {
        throw Failure(kUsage, fmt::format("found {}, expected NAME=VALUE, such as cpu.begins-at=90%", word));
    }
    return {word.substr(0, dot), word.substr(dot + 1, sign - dot - 1), word.substr(sign + 1)};
}

const Group *GroupOf(const Wish &wish) {
    const auto found = std::ranges::find_if(kGroups, [&](const Group &group) {
        const auto members = MembersOf(group);
        return group.name == wish.group && std::ranges::find(members, wish.member, &Member::name) != members.end();
    });
    return found == std::end(kGroups) ? nullptr : &*found;
}

std::vector<std::string> Names() {
    std::vector<std::string> names;
    for (const Group &group : kGroups) {
        for (const Member &member : MembersOf(group)) {
            names.push_back(fmt::format("{}.{}", group.name, member.name));
        }
    }
    for (const host::meaning::Choice &item : host::meaning::system_health_item::kAll) {
        names.push_back(fmt::format("health.{}.on", item.name));
        names.push_back(fmt::format("health.{}.limit", item.name));
    }
    return names;
}

[[noreturn]] void FailOf(const Wish &wish) {
    const std::vector<std::string> names = Names();
    const std::string name = wish.group + "." + wish.member;
    throw Failure(kUsage, fmt::format("{}: no such setting{}; tarnctl settings lists them", name,
                                      DidYouMean(name, {names.begin(), names.end()})));
}

// What isn't stated stays as it is, where that is told.
void Set(Server &server, const Group &group, const std::map<std::string, std::string> &stated) {
    const std::optional<Reply> now = group.get == nullptr ? std::nullopt : std::optional(server.Ask(group.get));
    std::vector<std::string> words;
    for (const Member &member : MembersOf(group)) {
        const std::string name(member.name);
        if (const auto value = stated.find(name); value != stated.end()) {
            words.push_back(fmt::format("{}={}", name, value->second));
        } else if (now) {
            words.push_back(fmt::format("{}={}", name, (*now)[name].get<uint64_t>()));
        }
    }
    server.Ask(group.set, words);
}

// An item is set whole: its switch is stated, or on.
void SetItem(Server &server, const std::string &item, std::map<std::string, std::string> stated) {
    stated.try_emplace("on", "on");
    std::vector<std::string> words{"item=" + item};
    for (const auto &[name, value] : stated) {
        words.push_back(fmt::format("{}={}", name, value));
    }
    server.Ask(kSetItem, words);
}

void SetAll(Server &server, std::span<const std::string> words) {
    std::map<const Group *, std::map<std::string, std::string>> groups;
    std::map<std::string, std::map<std::string, std::string>> items;
    for (const std::string &word : words) {
        const Wish wish = WishOf(word);
        if (const Group *const group = GroupOf(wish)) {
            groups[group][wish.member] = wish.value;
        } else if (wish.group.starts_with("health.")) {
            items[wish.group.substr(wish.group.find('.') + 1)][wish.member] = wish.value;
        } else {
            FailOf(wish);
        }
    }
    for (const auto &[group, stated] : groups) {
        Set(server, *group, stated);
    }
    for (const auto &[item, stated] : items) {
        SetItem(server, item, stated);
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
        server.Ask("ClearEnvAct", Json{{"what", "settings"}});
    } else {
        throw Failure(kUsage, fmt::format("found {}, expected list, set NAME=VALUE..., or reset", words[0]));
    }
}

} // namespace

std::vector<std::string> SettingWords(const std::string &word) {
    std::vector<std::string> words;
    const size_t sign = word.find('=');
    if (sign == word.npos) {
        for (const std::string &name : Names()) {
            words.push_back(name + "=");
        }
        return words;
    }
    const Wish wish = WishOf(word);
    const Group *const group = GroupOf(wish);
    const auto members = group == nullptr ? std::span<const Member>() : MembersOf(*group);
    const auto member = std::ranges::find(members, wish.member, &Member::name);
    if (wish.member == "on") {
        return {word.substr(0, sign) + "=off", word.substr(0, sign) + "=on"};
    }
    for (const host::meaning::Choice &choice :
         member == members.end() ? std::span<const host::meaning::Choice>() : member->value.choices) {
        words.push_back(fmt::format("{}={}", word.substr(0, sign), choice.name));
    }
    return words;
}

void AddSettings(CLI::App &app, const Globals &globals) {
    const auto options = std::make_shared<Options>();
    CLI::App *const task = AddTask(app, "settings", "Thresholds and switches of the daemon, and whose they are",
                                   {"settings", "settings set cpu.begins-at=90% cpu.must-last=10s",
                                    "settings set health.disk.limit=850", "settings reset"});
    task->add_option(
            "WHAT", options->words,
            "\"list\", as if nothing is given; \"set\" with NAME=VALUE for each; \"reset\" gives up what clients "
            "have set for what the master has or the default")
        ->option_text(" ");
    AddListOptions(*task, options->list);
    task->callback([&globals, options] { Settings(globals, *options); });
}

} // namespace ctl
