#include "host/ctl/print.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/ctl/values.h"
#include "host/describe/moment.h"
#include "host/describe/named_units.h"
#include "host/osal/text.h"

namespace ctl {

using host::describe::Json;
using host::describe::Kind;
using host::describe::Slot;
using host::describe::Type;
using host::meaning::Member;
using host::meaning::Value;
namespace meaning = host::meaning;

namespace {

// What is in an array of characters, for a line on a terminal.
std::string NameText(const Json &name) {
    if (name.is_string()) {
        return host::LineOfText(name.get_ref<const std::string &>());
    }
    const auto bytes = host::describe::FromHex(name["hex"].get_ref<const std::string &>());
    const std::string text(bytes->begin(), bytes->end());
    return host::LineOfText(text.substr(0, text.find_last_not_of('\0') + 1));
}

// "2026-02-03 04:05:06 +0100"; empty for no time.
std::string TimeText(const Json &time, meaning::Kind kind) {
    using namespace host::describe;
    const auto part = [&time](const char *name) { return time[name].get<int>(); };
    const Moment moment{part("usYear"), part("ucMonth"),  part("ucDay"),
                        part("ucHour"), part("ucMinute"), part("ucSecond")};
    if (!IsReal(moment)) {
        return moment.year == 0 ? "" : PlainText(moment);
    }
    return ZonedText(moment, kind == meaning::Kind::kGmtTime ? Zone::kGmt : Zone::kLocal);
}

std::string OneLine(const Json &value) {
    if (value.is_null()) {
        return "-";
    }
    if (value.is_object()) {
        return "0x" + value["hex"].get<std::string>();
    }
    if (value.is_array()) {
        std::string text;
        for (const Json &element : value) {
            text += (text.empty() ? "" : " ") + element.dump();
        }
        return text.empty() ? "-" : text;
    }
    if (!value.is_string()) {
        return value.dump();
    }
    const auto &text = value.get_ref<const std::string &>();
    const bool plain = !text.empty() && text.find_first_of("\t\r\n") == text.npos;
    return plain ? text : value.dump();
}

void PrintLines(std::ostream &out, const std::string &text, size_t indent) {
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        std::string line = text.substr(at, end - at);
        line.erase(std::remove(line.begin(), line.end(), '\r'), line.end()); // it would overwrite the line
        out << std::string(indent, ' ') << line << "\n";
        at = end + 1;
    }
}

// A table's slots, and what they mean; nothing in the view of the wire.
struct Shown {
    const Type &type;
    const host::meaning::Record *meaning;

    const Member *MemberOf(size_t slot) const { return meaning == nullptr ? nullptr : &meaning->members[slot]; }
    std::string NameOf(size_t slot) const {
        return meaning == nullptr ? type.slots[slot].name : std::string(meaning->members[slot].name);
    }
    bool Has(size_t slot) const {
        return meaning == nullptr || meaning->members[slot].value.kind != meaning::Kind::kUnused;
    }
    Shown Inside(size_t slot) const {
        return {*type.slots[slot].table, meaning == nullptr ? nullptr : meaning->inside[slot]};
    }
    bool IsTime(size_t slot) const {
        return meaning != nullptr && host::describe::IsTime(meaning->members[slot].value.kind);
    }
    bool IsFlat(size_t slot) const { return type.slots[slot].table == nullptr || IsTime(slot); }
    // Then processes and threads need no names of their own.
    bool HasNames() const {
        return meaning != nullptr && std::ranges::any_of(meaning->members, [](const Member &member) {
                   return member.name == "name" || member.name.ends_with("-name");
               });
    }
};

// Where a value stands: a line has room for what 0 means.
enum class Room { kLine, kCell };

class Printer {
public:
    Printer(std::ostream &out, const Style &style) : out_(out), style_(style) {}

    void Members(const Shown &shown, const Json &json, size_t indent) const;

private:
    void Line(const Shown &shown, size_t slot, const Json &value, size_t width, size_t indent) const;
    void Elements(const Shown &shown, const Json &array, size_t indent) const;
    bool FitsPage(const Table &rows, size_t count, size_t indent) const;

    std::ostream &out_;
    const Style &style_;
};

std::string NumberText(const Shown &shown, const Value &value, uint64_t number, Room room) {
    const bool id = value.kind == meaning::Kind::kPid || value.kind == meaning::Kind::kTid;
    if (number == 0 && !value.zero.empty() && room == Room::kLine) {
        return std::string(value.zero);
    }
    if (!id || room == Room::kLine || !shown.HasNames()) {
        return ValueText(value, number);
    }
    return number == 0 && !value.zero.empty() ? "-" : std::to_string(number); // what is nobody's has none
}

// Of an array, which travels whole, the numbers up to the last that is not 0.
std::string NumbersText(const Shown &shown, size_t slot, const Json &numbers) {
    size_t count = numbers.size();
    while (count > 0 && shown.type.slots[slot].kind == Kind::kArray64 && numbers[count - 1] == 0) {
        --count;
    }
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        text += (i == 0 ? "" : ", ") + ValueText(shown.MemberOf(slot)->value, numbers[i].get<uint64_t>());
    }
    return text.empty() ? "-" : text;
}

// Lines stay lines in a cell; whoever prints them takes care of what is no text.
std::string WithoutLastEnd(std::string lines) {
    if (lines.ends_with('\n')) {
        lines.pop_back();
    }
    return lines.empty() ? "-" : lines;
}

std::string TextOf(const Shown &shown, size_t slot, const Json &json, Room room) {
    const Member *const member = shown.MemberOf(slot);
    if (member == nullptr) {
        return OneLine(json);
    }
    const Value &value = member->value;
    if (json.is_array()) {
        return NumbersText(shown, slot, json);
    }
    if (json.is_number_unsigned()) {
        return NumberText(shown, value, json.get<uint64_t>(), room);
    }
    if (value.kind == meaning::Kind::kLines && json.is_string()) {
        return WithoutLastEnd(json.get<std::string>());
    }
    const std::string text = json.is_null()                            ? ""
                             : shown.type.slots[slot].table != nullptr ? TimeText(json, value.kind)
                             : value.kind == meaning::Kind::kBinary    ? OneLine(json)
                                                                       : NameText(json);
    return !text.empty() ? text : room == Room::kLine && !value.zero.empty() ? std::string(value.zero) : "-";
}

// A text that is lines; a name may hold line ends as well, but stays in its line.
std::optional<std::string> LinesIn(const Shown &shown, size_t slot, const Json &value) {
    const Member *const member = shown.MemberOf(slot);
    const bool lines = member != nullptr && member->value.kind == meaning::Kind::kLines;
    if (!value.is_string() || (shown.type.slots[slot].kind == Kind::kBytes && !lines)) {
        return std::nullopt;
    }
    const auto &text = value.get_ref<const std::string &>();
    return text.find('\n') == text.npos ? std::nullopt : std::optional(text);
}

// Whether each element takes one line.
bool FitsRows(const Shown &shown, const Json &array) {
    for (size_t i = 0; i < shown.type.slots.size(); ++i) {
        const auto hasLines = [&](const Json &one) {
            return LinesIn(shown, i, one[shown.type.slots[i].name]).has_value();
        };
        if (!shown.IsFlat(i) || (shown.meaning != nullptr && std::ranges::any_of(array, hasLines))) {
            return false;
        }
    }
    return true;
}

// Of a run, which travels whole, the elements up to the last that holds anything.
Json Filled(const Slot &slot, const Json &array) {
    Json filled = array;
    const Json nothing = host::describe::ToJson(host::describe::Record(*slot.table));
    while (slot.kind == Kind::kTableRun && !filled.empty() && filled.back() == nothing) {
        filled.erase(filled.size() - 1);
    }
    return filled;
}

Table RowsOf(const Shown &shown, const Json &array) {
    std::vector<std::string> heads;
    for (size_t i = 0; i < shown.type.slots.size(); ++i) {
        if (shown.Has(i)) {
            heads.push_back(shown.NameOf(i));
        }
    }
    Table table(heads);
    for (const Json &element : array) {
        std::vector<std::string> row;
        for (size_t i = 0; i < shown.type.slots.size(); ++i) {
            if (shown.Has(i)) {
                row.push_back(TextOf(shown, i, element[shown.type.slots[i].name], Room::kCell));
            }
        }
        table.Add(row);
    }
    return table;
}

// Programs that read lines of text expect several elements in rows, whatever their width.
bool Printer::FitsPage(const Table &rows, size_t count, size_t indent) const {
    constexpr size_t kPage = 100;
    const size_t most = style_.width != 0 ? style_.width : count == 1 ? kPage : SIZE_MAX;
    return rows.Width() + indent <= most;
}

void Printer::Elements(const Shown &shown, const Json &array, size_t indent) const {
    if (FitsRows(shown, array)) {
        const Table rows = RowsOf(shown, array);
        if (shown.meaning == nullptr || FitsPage(rows, array.size(), indent)) {
            rows.Print(out_, style_, indent);
            return;
        }
    }
    for (size_t i = 0; i < array.size(); ++i) {
        out_ << std::string(indent, ' ') << "[" << i << "]\n";
        Members(shown, array[i], indent + 2);
    }
}

void Printer::Line(const Shown &shown, size_t slot, const Json &value, size_t width, size_t indent) const {
    const std::string title = shown.NameOf(slot);
    const std::string name = std::string(indent, ' ') + title;
    const std::string padding(width - title.size() + 2, ' ');
    if (shown.IsFlat(slot)) {
        if (const auto lines = LinesIn(shown, slot, value)) {
            out_ << name << "\n";
            PrintLines(out_, *lines, indent + 2);
        } else {
            out_ << name << padding << TextOf(shown, slot, value, Room::kLine) << "\n";
        }
    } else if (shown.type.slots[slot].kind == Kind::kTable) {
        out_ << name << "\n";
        Members(shown.Inside(slot), value, indent + 2);
    } else {
        const Json elements = shown.meaning == nullptr ? value : Filled(shown.type.slots[slot], value);
        out_ << name << padding << elements.size() << (elements.size() == 1 ? " element\n" : " elements\n");
        if (!elements.empty()) {
            Elements(shown.Inside(slot), elements, indent + 2);
        }
    }
}

void Printer::Members(const Shown &shown, const Json &json, size_t indent) const {
    size_t width = 0;
    for (size_t i = 0; i < shown.type.slots.size(); ++i) {
        width = std::max(width, shown.Has(i) ? shown.NameOf(i).size() : 0);
    }
    for (size_t i = 0; i < shown.type.slots.size(); ++i) {
        if (shown.Has(i)) {
            Line(shown, i, json[shown.type.slots[i].name], width, indent);
        }
    }
}

} // namespace

void PrintRecord(std::ostream &out, const host::describe::Record &record, const Style &style) {
    Printer(out, style).Members({record.GetType(), nullptr}, host::describe::ToJson(record), 0);
}

void PrintRecord(std::ostream &out, const host::describe::Record &record, const meaning::Record &meaning,
                 const Style &style) {
    Printer(out, style).Members({record.GetType(), &meaning}, host::describe::ToJson(record), 0);
}

std::string MemberText(const Type &type, const meaning::Record &meaning, size_t slot, const Json &wire) {
    return TextOf({type, &meaning}, slot, wire, Room::kCell);
}

} // namespace ctl
