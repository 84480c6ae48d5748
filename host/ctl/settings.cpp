#include "host/ctl/settings.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <set>

#include "host/ctl/own_service.h"
#include "host/ctl/values.h"
#include "host/describe/named.h"
#include "host/describe/quantity.h"
#include "host/meaning/choices.h"
#include "host/meaning/meaning.h"

namespace ctl {

using host::describe::DidYouMean;
using host::describe::FindMethod;
using host::describe::Json;
using host::describe::Method;
using host::meaning::Choice;
using host::meaning::Kind;
using host::meaning::Member;
using host::meaning::Value;
namespace items = host::meaning::system_health_item;

namespace {

// The members of a method's request are settings: "cpu." and the name of one.
struct Group {
    const char *name;
    std::string_view method;
};
constexpr Group kGroups[] = {
    {"cpu", "SysOvLoadCpuThresholdSet"},
    {"memory", "SysOvLoadMemThresholdSet"},
    {"starvation", "SetTaskSwitch"},
    {"starvation", "SetTaskStarvThreshold"},
    {"measurement", "TarnSetDimTimeCfgByTarnd"},
    {"measurement", "TarnSetDimWorkModeCfgByTarnd"},
    {"date", "SetDateFormat"},
    {"health", "TarnPadsSetPadsGlobalSwitchByTarnd"},
};

std::span<const Member> MembersOf(const Group &group) {
    return RequireMethod(std::string(group.method)).meaning->request->members;
}

// ---- What is set ----

std::span<const Member> MembersOf(const Setting &setting) {
    return setting.method->meaning->request->members;
}

uint64_t NumberOf(const Setting &setting, const Member &member) {
    return setting.request.at(std::string(member.wire)).get<uint64_t>();
}

// The health item that is set; null for another setting.
const Choice *ItemOf(const Setting &setting) {
    const auto item = std::ranges::find(MembersOf(setting), "item", &Member::name);
    if (item == MembersOf(setting).end()) {
        return nullptr;
    }
    const auto *const found = std::ranges::find(items::kAll, NumberOf(setting, *item), &Choice::value);
    return found == std::end(items::kAll) ? nullptr : found;
}

// "cpu", "health.disk"; empty for what only a later daemon has.
std::string GroupNameOf(const Setting &setting) {
    const Choice *const item = ItemOf(setting);
    const auto *const group = std::ranges::find(kGroups, std::string_view(setting.method->name), &Group::method);
    return item != nullptr ? fmt::format("health.{}", item->name) : group == std::end(kGroups) ? "" : group->name;
}

// A limit is in what its item measures.
Value ValueOf(const Setting &setting, const Member &member) {
    const Choice *const item = member.name == "limit" ? ItemOf(setting) : nullptr;
    Value value = member.value;
    if (item != nullptr) {
        value.kind = *item == items::kLoad                                      ? Kind::kThousandths
                     : *item == items::kAgents || *item == items::kCpuEventTime ? Kind::kMilliseconds
                                                                                : Kind::kPermille;
    }
    return value;
}

// For forms: the words that a value can be, or its bounds where it has some, and what 0 means beyond them.
Json AcceptedJson(const Value &value) {
    Json accepted = Json::object();
    for (const Choice &choice : value.choices) {
        accepted["words"].push_back(choice.name);
    }
    if (value.most != UINT64_MAX) {
        accepted["least"] = ValueText(value, value.least);
        accepted["most"] = ValueText(value, value.most);
    }
    if (!value.zero.empty()) {
        accepted["zero"] = value.zero;
    }
    return accepted;
}

// What 0 means is told as the setting says it.
SettingRow RowOf(const std::string &group, const Setting &setting, const Member &member) {
    const std::string name = fmt::format("{}.{}", group, member.name);
    const Choice *const item = member.name == "limit" ? ItemOf(setting) : nullptr;
    const uint64_t number = NumberOf(setting, member);
    const bool isZero = number == 0 && !member.value.zero.empty();
    const std::string text = isZero ? std::string(member.value.zero) : ValueText(ValueOf(setting, member), number);
    const Json named = host::describe::ToNamed(setting.request, *setting.method->meaning->request);
    return {name,
            text,
            setting.source,
            std::string(item == nullptr ? member.sentence : item->sentence),
            {{"name", name},
             {"value", named.at(host::describe::KeyOf(member))},
             {"source", setting.source},
             {"text", text},
             {"meaning", item == nullptr ? member.sentence : item->sentence},
             {"accepts", AcceptedJson(ValueOf(setting, member))}}};
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
    for (const Choice &item : items::kAll) {
        names.push_back(fmt::format("health.{}.on", item.name));
        names.push_back(fmt::format("health.{}.limit", item.name));
    }
    return names;
}

[[noreturn]] void FailOf(const Wish &wish) {
    const std::vector<std::string> names = Names();
    const std::string name = wish.group + "." + wish.member;
    const std::string closest = DidYouMean(name, {names.begin(), names.end()});
    throw Failure(kUsage, fmt::format("{}: no such setting{}", name,
                                      closest.empty() ? "; tarnctl settings lists them" : closest));
}

void Change(std::vector<Setting> &settings, const Wish &wish) {
    for (Setting &setting : settings) {
        const auto member = std::ranges::find(MembersOf(setting), wish.member, &Member::name);
        if (GroupNameOf(setting) != wish.group || member == MembersOf(setting).end() || member->name == "item") {
            continue;
        }
        try {
            const Value value = ValueOf(setting, *member);
            setting.request[std::string(member->wire)] = host::describe::ParseQuantity(value, wish.value);
            setting.isStated = true;
            return;
        } catch (const host::describe::QuantityError &error) {
            throw Failure(kUsage, fmt::format("{}.{}: {}", wish.group, wish.member, error.what()));
        }
    }
    FailOf(wish);
}

// What isn't stated but bounded by what is, and beyond it now, is left to the daemon where 0 means that.
void Follow(Setting &setting, const Member &member) {
    const Value &value = member.value;
    if (value.notAbove.empty() || value.zero.empty()) {
        return;
    }
    if (NumberOf(setting, member) > setting.request.at(std::string(value.notAbove)).get<uint64_t>()) {
        setting.request[std::string(member.wire)] = 0;
    }
}

} // namespace

std::vector<Setting> SettingsIn(const Json &told) {
    std::vector<Setting> settings;
    for (const Json &one : told.at("settings")) {
        if (const Method *const method = FindMethod(one.at("method").get<std::string>())) {
            settings.push_back({method, one.at("request"), one.at("source").get<std::string>()});
        }
    }
    return settings;
}

std::vector<Setting> AskSettings(Server &server) {
    return SettingsIn(AskOwnService(server.GetClient(), "Settings"));
}

std::vector<SettingRow> RowsOf(const std::vector<Setting> &settings) {
    std::vector<SettingRow> rows;
    for (const Setting &setting : settings) {
        const std::string group = GroupNameOf(setting);
        for (const Member &member : group.empty() ? std::span<const Member>() : MembersOf(setting)) {
            if (member.name != "item") {
                rows.push_back(RowOf(group, setting, member));
            }
        }
    }
    return rows;
}

void RequireSettings(std::span<const std::string> words) {
    const std::vector<std::string> names = Names();
    for (const std::string &word : words) {
        const Wish wish = WishOf(word);
        if (std::ranges::count(names, wish.group + "." + wish.member) == 0) {
            FailOf(wish);
        }
    }
}

void Change(std::vector<Setting> &settings, std::span<const std::string> words) {
    std::set<std::string> stated;
    for (const std::string &word : words) {
        const Wish wish = WishOf(word);
        Change(settings, wish);
        stated.insert(wish.group + "." + wish.member);
    }
    for (Setting &setting : settings) {
        for (const Member &member : setting.isStated ? MembersOf(setting) : std::span<const Member>()) {
            if (!stated.contains(fmt::format("{}.{}", GroupNameOf(setting), member.name))) {
                Follow(setting, member);
            }
        }
    }
}

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
    for (const Choice &choice : member == members.end() ? std::span<const Choice>() : member->value.choices) {
        words.push_back(fmt::format("{}={}", word.substr(0, sign), choice.name));
    }
    return words;
}

} // namespace ctl
