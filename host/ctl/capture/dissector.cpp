// dissector: a program in Lua for Wireshark's dissection engine, with the methods and types as data.
#include <fmt/format.h>

#include <cstring>
#include <iostream>
#include <map>

#include "host/ctl/capture/capture.h"
#include "host/ctl/capture/dissector_code.h"
#include "host/describe/named.h"
#include "host/describe/types.h"
#include "host/meaning/meaning.h"
#include "host/meaning/unit.h"

namespace ctl {

using namespace host::describe;

namespace {

using host::meaning::Kind;

// In quotes; names and sentences have no control characters.
std::string Quoted(std::string_view text) {
    std::string quoted = "\"";
    for (const char letter : text) {
        quoted += letter == '"' || letter == '\\' ? "\\" : "";
        quoted += letter;
    }
    return quoted + "\"";
}

std::string ShapeOf(const Slot &slot) {
    switch (slot.kind) {
    case velto::Kind::kScalar:
        return "scalar";
    case velto::Kind::kTable:
        return "table";
    case velto::Kind::kTableRun:
    case velto::Kind::kTableVector:
        return "tables";
    case velto::Kind::kArray64:
    case velto::Kind::kVector32:
        return "numbers";
    default:
        return "bytes";
    }
}

// The names of a number's values, as Lua has them; empty where they have none.
std::string NamesOf(const host::meaning::Value &value) {
    std::string names;
    for (const host::meaning::Choice &one : value.choices) {
        names += fmt::format("[{}]={},", one.value, Quoted(one.name));
    }
    switch (value.kind) {
    case Kind::kChoice:
        return "{" + names + "}";
    case Kind::kSwitch:
        return R"({[0]="off",[1]="on"})";
    case Kind::kErrno:
        return "errors";
    default:
        return {};
    }
}

// How a value is shown.
std::string_view LookOf(Kind kind) {
    switch (kind) {
    case Kind::kAddress:
    case Kind::kFlags:
        return "hex";
    case Kind::kSigned:
        return "signed";
    case Kind::kLetter:
        return "letter";
    case Kind::kBinary:
        return "binary";
    default:
        return "plain";
    }
}

class Dissector {
public:
    void Write(std::ostream &out) {
        for (const Method &method : Methods()) {
            const size_t request = NumberOf(*method.meaning->request);
            const std::string reply =
                method.meaning->response == nullptr ? "nil" : std::to_string(NumberOf(*method.meaning->response));
            methods_ += fmt::format("methods[{}] = {{request={}, reply={}}}\n",
                                    Quoted(fmt::format("{}.{}", method.service, method.name)), request, reply);
        }
        out << kDissectorHead << Errors() << records_ << methods_ << kDissectorCode;
    }

private:
    static std::string Errors() {
        constexpr int kMost = 133; // the highest that Linux has
        std::string text = "local errors = {[0]=\"ok\"";
        for (int error = 1; error <= kMost; ++error) {
            if (const char *const name = strerrorname_np(error)) {
                text += fmt::format(",[{}]=\"{}\"", error, name);
            }
        }
        return text + "}\n";
    }

    size_t NumberOf(const host::meaning::Record &record) {
        if (const auto known = numbers_.find(&record); known != numbers_.end()) {
            return known->second;
        }
        std::string slots;
        const Type &type = *FindType(record.type);
        for (size_t i = 0; i < record.members.size(); ++i) {
            slots += SlotText(type.slots[i], record, i);
        }
        const size_t number = numbers_.size() + 1;
        numbers_.emplace(&record, number);
        records_ += fmt::format("records[{}] = {{type={}, slots={{\n{}}}}}\n", number, Quoted(record.type), slots);
        return number;
    }

    std::string SlotText(const Slot &slot, const host::meaning::Record &record, size_t index) {
        const host::meaning::Member &member = record.members[index];
        const host::meaning::Record *const inside = record.inside[index];
        const std::string_view sign = host::meaning::SignOf(member.value.kind);
        std::string key(member.name);
        std::ranges::replace(key, '-', '_');
        std::string text = fmt::format("  {{key={}, name={}, shape=\"{}\", width={}, look=\"{}\"", Quoted(key),
                                       Quoted(fmt::format("{}{}{}", member.name, sign.empty() ? "" : " in ", sign)),
                                       ShapeOf(slot), slot.width, LookOf(member.value.kind));
        if (const std::string names = NamesOf(member.value); !names.empty()) {
            text += ", names=" + names;
        }
        if (inside != nullptr) {
            text += fmt::format(", inside={}", NumberOf(*inside));
        }
        return text + "},\n";
    }

    std::map<const host::meaning::Record *, size_t> numbers_;
    std::string records_, methods_;
};

} // namespace

void WriteDissector() {
    Dissector().Write(std::cout);
}

} // namespace ctl
