#include "host/describe/stated.h"

#include <fmt/format.h>

#include "host/describe/named_units.h"

namespace host::describe {

namespace {

using meaning::Member;

// The nested record that is stated by its members; null for a time, which is one value.
const meaning::Record *NestedIn(const meaning::Record &record, const Member &member) {
    return member.value.kind == meaning::Kind::kRecord ? InsideOf(record, member) : nullptr;
}

Json ValueOf(const Place &place, const std::string &text, const ReadFile &read) {
    const bool file = text == "-" || text.starts_with('@');
    return file && IsText(place.member.value.kind)
               ? FromBytes(place, read(text.starts_with('@') ? text.substr(1) : text))
               : FromText(place, text);
}

// Adds a member to the JSON of a record, whose path is the part of the name before `at`.
void State(Json &wire, const meaning::Record &record, const std::string &name, size_t at, const std::string &text,
           const ReadFile &read) {
    const size_t dot = std::min(name.find('.', at), name.size());
    const Place place = PlaceOf(record, name.substr(at, dot - at), name.substr(0, at));
    const std::string member(place.member.wire);
    const meaning::Record *const inside = InsideOf(record, place.member);
    if (dot != name.size()) {
        if (inside == nullptr || place.member.value.kind == meaning::Kind::kRecords) {
            throw JsonError(fmt::format("{}: {} has no members to state", name, place.Name()));
        }
        State(wire[member], *inside, name, dot + 1, text, read);
        return;
    }
    if (wire.contains(member)) {
        throw JsonError(place.Name() + " is stated twice");
    }
    wire[member] = ValueOf(place, text, read);
}

void AddMissing(const Json &wire, const meaning::Record &record, const std::string &path,
                std::vector<std::string> &missing) {
    for (const Member &member : record.members) {
        const std::string name(member.wire);
        const bool stated = wire.contains(name);
        const meaning::Record *const inside = NestedIn(record, member);
        if (inside != nullptr && (stated || member.value.Required())) {
            AddMissing(stated ? wire[name] : Json::object(), *inside, path + std::string(member.name) + ".", missing);
        } else if (!stated && member.value.Required()) {
            missing.push_back(Place{record, member, path}.Name());
        }
    }
}

void AddNames(const meaning::Record &record, const std::string &path, std::vector<std::string> &names) {
    for (const Member &member : record.members) {
        const std::string name = path + std::string(member.name);
        if (const meaning::Record *const inside = NestedIn(record, member)) {
            AddNames(*inside, name + ".", names);
        } else if (member.value.kind != meaning::Kind::kUnused && member.value.kind != meaning::Kind::kRecords) {
            names.push_back(name);
        }
    }
}

// What a shell takes for one word.
std::string Quoted(const std::string &word) {
    const bool plain = word.find_first_of(" *?[]{}()<>|&;$`\"'\\!#~") == word.npos;
    return plain ? word : "'" + word + "'";
}

} // namespace

Json FromWords(std::span<const std::string> words, const meaning::Record &meaning, const ReadFile &read) {
    Json wire = Json::object();
    for (const std::string &word : words) {
        const size_t sign = word.find('=');
        if (sign == word.npos || sign == 0) {
            throw JsonError(fmt::format("found {}, expected NAME=VALUE or JSON", word.empty() ? "nothing" : word));
        }
        State(wire, meaning, word.substr(0, sign), 0, word.substr(sign + 1), read);
    }
    return wire;
}

std::vector<std::string> MissingMembers(const Json &wire, const meaning::Record &meaning) {
    std::vector<std::string> missing;
    AddMissing(wire, meaning, "", missing);
    return missing;
}

std::vector<std::string> WordsOf(std::string_view example) {
    std::vector<std::string> words;
    for (size_t at = 0; at < example.size();) {
        const size_t end = std::min(example.find(' ', at), example.size());
        words.emplace_back(example.substr(at, end - at));
        at = end + 1;
    }
    return words;
}

std::string ExampleOf(const meaning::Method &method) {
    constexpr std::string_view kAgentService = "TarnSysdiagAgent";
    std::string text =
        fmt::format("tarnctl call {}{}", method.name, method.service == kAgentService ? " --pid 4711" : "");
    for (const std::string &word : WordsOf(method.example)) {
        text += " " + Quoted(word);
    }
    return text;
}

std::vector<std::string> StatedNames(const meaning::Record &meaning) {
    std::vector<std::string> names;
    AddNames(meaning, "", names);
    return names;
}

} // namespace host::describe
