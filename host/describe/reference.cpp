// Writes docs/interface.md: every service, method and member, as the lists in host/meaning have them.
#include <fmt/format.h>

#include <iostream>

#include "host/describe/stated.h"
#include "host/meaning/check.h"
#include "host/meaning/groups.h"
#include "host/meaning/unit.h"

namespace {

using namespace host::meaning;
using host::describe::Json;

// In a cell of a table.
std::string Cell(std::string_view text) {
    std::string cell;
    for (const char letter : text) {
        switch (letter) {
        case '|':
        case '*':
        case '<':
            cell += '\\';
            [[fallthrough]];
        default:
            cell += letter;
        }
    }
    return cell;
}

std::string SentenceText(const Member &member) {
    std::string text = Cell(member.sentence);
    for (const Choice &one : member.value.choices) {
        const std::string number = member.value.kind == Kind::kWord ? "" : fmt::format(" ({})", one.value);
        text += fmt::format("<br>`{}`{}: {}", one.name, number, Cell(one.sentence));
    }
    return text;
}

// Members of the records inside follow the one that holds them.
void PrintRows(const Record &record, const std::string &path, const std::string &wirePath) {
    for (size_t i = 0; i < record.members.size(); ++i) {
        const Member &member = record.members[i];
        const std::string name = path + std::string(member.name), wire = wirePath + std::string(member.wire);
        std::cout << fmt::format("| `{}` | `{}` | {} | {} | {} |\n", name, wire, NameOf(member.value.kind),
                                 Cell(fmt::format("{}", fmt::join(Conditions(record, member), "; "))),
                                 SentenceText(member));
        if (record.inside[i] != nullptr && !IsTime(member.value.kind)) {
            const char *const element = member.value.kind == Kind::kRecords ? "[]." : ".";
            PrintRows(*record.inside[i], name + element, wire + element);
        }
    }
}

void PrintRecord(std::string_view title, const Record &record) {
    if (record.members.empty()) {
        std::cout << fmt::format("{}: `{}`, no members.\n\n", title, record.type);
        return;
    }
    std::cout << fmt::format("{}: `{}`.\n\n", title, record.type)
              << "| name | on the wire | what it is | values | meaning |\n|---|---|---|---|---|\n";
    PrintRows(record, "", "");
    std::cout << "\n";
}

// What stands for a value of that kind where the form of an output is shown.
Json PlaceFor(const Value &value) {
    switch (value.kind) {
    case Kind::kSwitch:
        return true;
    case Kind::kChoice:
    case Kind::kWord:
        return value.choices.front().name;
    case Kind::kFlags:
        return Json::array({value.choices.front().name});
    case Kind::kErrno:
        return "ok";
    case Kind::kLetter:
        return "sleeping";
    case Kind::kAddress:
        return "0x0";
    case Kind::kUnixTime:
    case Kind::kLocalTime:
    case Kind::kGmtTime:
        return "2026-02-03T04:05:06+01:00";
    case Kind::kNumbers:
    case Kind::kTids:
        return Json::array({0});
    default:
        return value.kind < Kind::kText ? Json(0) : Json("...");
    }
}

Json FormOf(const Record &record) {
    Json form = Json::object();
    for (size_t i = 0; i < record.members.size(); ++i) {
        const Member &member = record.members[i];
        Json &value = form[host::describe::KeyOf(member)];
        if (record.inside[i] == nullptr || IsTime(member.value.kind)) {
            value = PlaceFor(member.value);
        } else {
            value = FormOf(*record.inside[i]);
            value = member.value.kind == Kind::kRecords ? Json::array({value}) : value;
        }
    }
    return form;
}

void PrintExample(const Method &method) {
    std::cout << fmt::format("    $ {} --json=named\n", host::describe::ExampleOf(method));
    const std::string form = method.response == nullptr ? "null" : FormOf(*method.response).dump(2);
    for (size_t at = 0; at <= form.size();) {
        const size_t end = std::min(form.find('\n', at), form.size());
        std::cout << "    " << form.substr(at, end - at) << "\n";
        at = end + 1;
    }
    std::cout << "\n";
}

void PrintMethod(const Method &method, size_t index) {
    std::cout << fmt::format("### {}\n\n{}\n\n", method.name, method.sentence)
              << fmt::format("Group `{}`, index {}.{}\n\n", host::NameOf(method.group), index,
                             method.duration == Duration::kLong ? " It may take long: state a deadline." : "");
    PrintRecord("Request", *method.request);
    if (method.response == nullptr) {
        std::cout << "No reply.\n\n";
    } else {
        PrintRecord("Reply", *method.response);
    }
    PrintExample(method);
}

void PrintGroups(const Service &service) {
    std::cout << "| group | methods |\n|---|---|\n";
    for (const host::Group group : host::kGroups) {
        std::string methods;
        for (const Method *method : service.methods) {
            if (method->group == group) {
                methods += fmt::format("{}`{}`", methods.empty() ? "" : " ", method->name);
            }
        }
        if (!methods.empty()) {
            std::cout << fmt::format("| {} | {} |\n", host::NameOf(group), methods);
        }
    }
    std::cout << "\n";
}

constexpr std::string_view kHead = R"(# The interface

Written by `./dev interface` from the lists in `host/meaning`: change those. `tarnctl describe METHOD` has the same.

A member has a name for people and programs, and one on the wire. A request may state it by either: `process=1`,
`uiPid=1`. What an example prints is the form of the reply, one element for each list, with values that only stand for
others: what a machine answers is never the same twice.
)";

} // namespace

int main() {
    std::cout << kHead;
    for (const Service *service : host::describe::Meanings()) {
        std::cout << fmt::format("\n## {}\n\n{}\n\n", service->name, service->sentence);
        PrintGroups(*service);
        for (size_t i = 0; i < service->methods.size(); ++i) {
            PrintMethod(*service->methods[i], i + 1);
        }
    }
    return std::cout.flush() ? 0 : 1;
}
