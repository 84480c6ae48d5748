// describe: what a method and the members of its records mean, or how they travel.
#include <fmt/format.h>

#include <algorithm>
#include <iostream>

#include "host/ctl/interface.h"
#include "host/ctl/print.h"
#include "host/ctl/values.h"
#include "host/describe/named.h"
#include "host/describe/named_units.h"
#include "host/describe/stated.h"
#include "host/meaning/check.h"
#include "host/meaning/groups.h"
#include "host/meaning/reflect.h"
#include "host/meaning/unit.h"

namespace ctl {

using namespace host::describe;
using host::meaning::Choice;
using host::meaning::Member;

namespace {

// A record of a method, or within one, as the method means it; without a meaning, of a type that no method has.
struct Section {
    std::string title; // "request", "zone"
    const Type *type;
    const host::meaning::Record *meaning;
    bool time = false; // one value, in the view of what is meant
};

// With what is inside them, each once.
std::vector<Section> WithInsides(std::vector<Section> sections) {
    for (size_t next = 0; next < sections.size(); ++next) {
        const Section section = sections[next];
        for (size_t i = 0; i < section.type->slots.size(); ++i) {
            const Type *const inside = section.type->slots[i].table;
            if (inside == nullptr || std::ranges::find(sections, inside, &Section::type) != sections.end()) {
                continue;
            }
            if (section.meaning == nullptr) {
                sections.push_back({"", inside, nullptr});
            } else {
                const Member &member = section.meaning->members[i];
                sections.push_back(
                    {std::string(member.name), inside, section.meaning->inside[i], IsTime(member.value.kind)});
            }
        }
    }
    return sections;
}

std::vector<Section> SectionsOf(const Method &method) {
    std::vector<Section> sections{{"request", method.request, method.meaning->request}};
    if (method.response != nullptr) {
        sections.push_back({"reply", method.response, method.meaning->response});
    }
    return WithInsides(std::move(sections));
}

// ---- For people: what is meant ----

// Lines of at most so many characters, broken at blanks.
void PrintWrapped(std::string_view text, size_t indent) {
    constexpr size_t kWidth = 100;
    const size_t room = kWidth - indent;
    while (!text.empty()) {
        const size_t blank = text.size() <= room ? text.size() : text.rfind(' ', room);
        const size_t end = std::min(blank, text.size());
        std::cout << std::string(indent, ' ') << text.substr(0, end) << "\n";
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

void PrintMember(const host::meaning::Record &record, const Member &member) {
    const host::meaning::Record *const inside = InsideOf(record, member);
    const bool nested = inside != nullptr && !IsTime(member.value.kind);
    std::string what(NameOf(member.value.kind));
    what += nested ? fmt::format(" {}", inside->type) : "";
    for (const std::string &condition : Conditions(record, member)) {
        what += ", " + condition;
    }
    std::cout << fmt::format("  {} ({}): {}\n", member.name, member.wire, what);
    PrintWrapped(member.sentence, 6);
    for (const Choice &one : member.value.choices) {
        PrintWrapped(fmt::format("{} ({}): {}", one.name, one.value, one.sentence), 8);
    }
}

void PrintSections(const std::vector<Section> &sections) {
    for (const Section &section : sections) {
        if (section.time) {
            continue;
        }
        std::cout << (&section == &sections.front() ? "" : "\n") << section.title << (section.title.empty() ? "" : ": ")
                  << section.type->name << "\n";
        if (section.type->slots.empty()) {
            std::cout << "  no members\n";
        } else if (section.meaning == nullptr) {
            std::cout << "  no method has it\n";
        }
        for (size_t i = 0; section.meaning != nullptr && i < section.meaning->members.size(); ++i) {
            if (section.meaning->members[i].value.kind != host::meaning::Kind::kUnused) {
                PrintMember(*section.meaning, section.meaning->members[i]);
            }
        }
    }
}

void PrintMethod(const Method &method) {
    const host::meaning::Method &meaning = *method.meaning;
    std::cout << fmt::format("{}.{}, {}\n", method.service, method.name, NameOf(meaning.group));
    PrintWrapped(meaning.sentence, 2);
    if (meaning.duration == host::meaning::Duration::kLong) {
        PrintWrapped("It may take longer than a caller waits by default: --deadline gives it more time.", 2);
    }
    std::cout << "\nexample\n  " << ExampleOf(meaning) << "\n\n";
}

// ---- For people: how it travels ----

void PrintLayout(const Type &type, const Style &style) {
    const std::string fixed = type.fixed ? fmt::format("fixed form {} bytes", type.fixed->Size()) : "no fixed form";
    std::cout << fmt::format("{}  hash 0x{:08X}, record {} bytes, {}\n", type.name, type.hash, type.size, fixed);
    Table table({"slot", "member", "kind", "at", "fixed", "count"});
    for (size_t i = 0; i < type.slots.size(); ++i) {
        const Slot &slot = type.slots[i];
        table.Add({std::to_string(i), slot.name, KindText(slot), std::to_string(slot.offset),
                   type.fixed ? std::to_string(type.fixed->offsets[i]) : "-", slot.count == nullptr ? "" : slot.count});
    }
    if (type.slots.empty()) {
        std::cout << "  no members\n";
    } else {
        table.Print(std::cout, style, 2);
    }
}

void PrintLayouts(const std::vector<Section> &sections, const Style &style) {
    for (const Section &section : sections) {
        std::cout << (&section == &sections.front() ? "" : "\n");
        PrintLayout(*section.type, style);
    }
}

// ---- For programs ----

Json SectionJson(const Section &section) {
    const Type &type = *section.type;
    Json json{{"type", type.name}, {"hash", fmt::format("0x{:08X}", type.hash)}, {"nativeSize", type.size}};
    json["fixedSize"] = type.fixed ? Json(type.fixed->Size()) : Json();
    json["fields"] = Json::array();
    for (size_t i = 0; i < type.slots.size(); ++i) {
        const Slot &slot = type.slots[i];
        Json field{{"slot", i}, {"name", slot.name}, {"kind", KindText(slot)}, {"offset", slot.offset}};
        field["count"] = slot.count == nullptr ? Json() : Json(slot.count);
        field["fixedOffset"] = type.fixed ? Json(type.fixed->offsets[i]) : Json();
        if (section.meaning != nullptr) {
            field["key"] = KeyOf(section.meaning->members[i]);
            field["meaning"] = Json::parse(MeaningJson(section.meaning->members[i]));
        }
        json["fields"].push_back(std::move(field));
    }
    return json;
}

void PrintJson(Json json, const std::vector<Section> &sections) {
    std::ranges::transform(sections, std::back_inserter(json["types"]), SectionJson);
    std::cout << json.dump(2) << "\n";
}

} // namespace

void DescribeMethod(const Method &method, View view, bool json) {
    const auto sections = SectionsOf(method);
    const Output output(!json);
    if (json) {
        PrintJson(MethodJson(method), sections);
    } else if (view == View::kMeaning) {
        PrintMethod(method);
        PrintSections(sections);
    } else {
        std::cout << fmt::format("{}.{}  index {}: {} -> {}\n\n", method.service, method.name, method.index,
                                 method.request->name, ResponseName(method));
        PrintLayouts(sections, output.GetStyle());
    }
}

void DescribeType(const Type &type, View view, bool json) {
    const auto sections = WithInsides({{"", &type, MeaningOf(type)}});
    const Output output(!json);
    if (json) {
        PrintJson(Json::object(), sections);
    } else if (view == View::kMeaning) {
        PrintSections(sections);
    } else {
        PrintLayouts(sections, output.GetStyle());
    }
}

} // namespace ctl
