#include "host/ctl/print.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/ctl/meaning.h"
#include "host/osal/text.h"

namespace ctl {

using host::describe::Json;
using host::describe::Kind;
using host::describe::Slot;
using host::describe::Type;

namespace {

// Characters, not bytes: what follows the first byte of a UTF-8 sequence takes no room.
size_t Width(const std::string &text) {
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return (static_cast<uint8_t>(byte) & 0xC0) != 0x80; }));
}

// A number, perhaps with a unit: "4711", "-20", "12.5 %", "3.4 MiB".
bool IsQuantity(const std::string &text) {
    constexpr size_t kLongestUnit = 3;
    const size_t end = std::min(text.find_first_not_of("0123456789.", text.starts_with('-') ? 1 : 0), text.size());
    const size_t rest = text.size() - end;
    return text.find_first_of("0123456789") < end &&
           (rest == 0 ||
            (text[end] == ' ' && rest <= kLongestUnit + 1 && text.find_first_of("0123456789.()-", end) == text.npos));
}

bool IsTime(const Type *type) {
    return type != nullptr && std::string_view(type->name) == "Systime";
}

// "2026-02-03 04:05:06"; "-" for no time.
std::string TimeText(const Json &time) {
    const auto part = [&time](const char *name) { return time[name].get<uint32_t>(); };
    if (part("usYear") == 0) {
        return "-";
    }
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}", part("usYear"), part("ucMonth"), part("ucDay"),
                       part("ucHour"), part("ucMinute"), part("ucSecond"));
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

// An array of characters, not of bytes.
bool IsName(const Slot &slot) {
    const std::string_view name = slot.name;
    return slot.kind == Kind::kBytes && (name.starts_with("ac") || name.starts_with("sz"));
}

// Names may hold line ends as well, but stay in their line.
bool HasLines(const Slot &slot, const Json &value) {
    return slot.kind != Kind::kBytes && value.is_string() &&
           value.get_ref<const std::string &>().find('\n') != std::string::npos;
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

// Prints in one view.
class Printer {
public:
    Printer(std::ostream &out, View view) : out_(out), view_(view) {}

    void Table(const Type &type, const Json &json, size_t indent) const;

private:
    bool IsFlat(const Slot &slot) const {
        return slot.table == nullptr || (view_ == View::kMeaning && slot.kind == Kind::kTable && IsTime(slot.table));
    }
    std::string NameOf(const Type &type, const Slot &slot) const {
        const char *const label = view_ == View::kMeaning ? MeaningOf(type, slot).label : nullptr;
        return label == nullptr ? slot.name : label;
    }
    std::string TextOf(const Type &type, const Slot &slot, const Json &value) const;
    bool FitsRows(const Type &type, const Json &array) const;
    Json Filled(const Slot &slot, const Json &array) const;
    void Elements(const Type &type, const Json &array, size_t indent) const;

    std::ostream &out_;
    const View view_;
};

std::string Printer::TextOf(const Type &type, const Slot &slot, const Json &value) const {
    if (view_ == View::kWire) {
        return OneLine(value);
    }
    if (IsTime(slot.table)) {
        return TimeText(value);
    }
    if (value.is_object() && IsName(slot)) {
        return NameText(value);
    }
    const Unit unit = MeaningOf(type, slot).unit;
    if (unit != Unit::kNone && value.is_number_unsigned()) {
        return TextWithUnit(value.get<uint64_t>(), unit);
    }
    if (unit != Unit::kNone && value.is_array()) {
        size_t count = value.size();
        while (count > 0 && slot.kind == Kind::kArray64 && value[count - 1] == 0) { // it travels whole
            --count;
        }
        std::string text;
        for (size_t i = 0; i < count; ++i) {
            text += (i == 0 ? "" : ", ") + TextWithUnit(value[i].get<uint64_t>(), unit);
        }
        return text.empty() ? "-" : text;
    }
    return OneLine(value);
}

// Whether each element takes one line.
bool Printer::FitsRows(const Type &type, const Json &array) const {
    return std::all_of(type.slots.begin(), type.slots.end(), [&](const Slot &slot) {
        return IsFlat(slot) && (view_ == View::kWire || std::none_of(array.begin(), array.end(), [&](const Json &one) {
                                    return HasLines(slot, one[slot.name]);
                                }));
    });
}

// Of a run, which travels whole, the elements up to the last that holds anything.
Json Printer::Filled(const Slot &slot, const Json &array) const {
    Json filled = array;
    if (view_ == View::kMeaning && slot.kind == Kind::kTableRun) {
        const Json nothing = host::describe::ToJson(host::describe::Record(*slot.table));
        while (!filled.empty() && filled.back() == nothing) {
            filled.erase(filled.size() - 1);
        }
    }
    return filled;
}

void Printer::Elements(const Type &type, const Json &array, size_t indent) const {
    if (!FitsRows(type, array)) {
        for (size_t i = 0; i < array.size(); ++i) {
            out_ << std::string(indent, ' ') << "[" << i << "]\n";
            Table(type, array[i], indent + 2);
        }
        return;
    }
    Columns columns;
    std::vector<std::string> head;
    for (const Slot &slot : type.slots) {
        head.push_back(NameOf(type, slot));
    }
    columns.Add(head);
    for (const Json &element : array) {
        std::vector<std::string> row;
        for (const Slot &slot : type.slots) {
            row.push_back(TextOf(type, slot, element[slot.name]));
        }
        columns.Add(row);
    }
    columns.Print(out_, indent);
}

void Printer::Table(const Type &type, const Json &json, size_t indent) const {
    size_t width = 0;
    for (const Slot &slot : type.slots) {
        width = std::max(width, NameOf(type, slot).size());
    }
    for (const Slot &slot : type.slots) {
        const Json &value = json[slot.name];
        const std::string title = NameOf(type, slot);
        const std::string name = std::string(indent, ' ') + title;
        const std::string padding(width - title.size() + 2, ' ');
        if (IsFlat(slot)) {
            if (HasLines(slot, value)) {
                out_ << name << "\n";
                PrintLines(out_, value.get_ref<const std::string &>(), indent + 2);
            } else {
                out_ << name << padding << TextOf(type, slot, value) << "\n";
            }
        } else if (slot.kind == Kind::kTable) {
            out_ << name << "\n";
            Table(*slot.table, value, indent + 2);
        } else {
            const Json elements = Filled(slot, value);
            out_ << name << padding << elements.size() << (elements.size() == 1 ? " element\n" : " elements\n");
            if (!elements.empty()) {
                Elements(*slot.table, elements, indent + 2);
            }
        }
    }
}

} // namespace

std::string NameText(const Json &name) {
    if (name.is_string()) {
        return host::LineOfText(name.get_ref<const std::string &>());
    }
    const auto bytes = host::describe::FromHex(name["hex"].get_ref<const std::string &>());
    const std::string text(bytes->begin(), bytes->end());
    return host::LineOfText(text.substr(0, text.find_last_not_of('\0') + 1));
}

void Columns::Add(const std::vector<std::string> &row) {
    auto &added = rows_.emplace_back();
    for (const std::string &text : row) {
        added.push_back(host::LineOfText(text));
    }
}

void Columns::Print(std::ostream &out, size_t indent) const {
    std::vector<size_t> widths;
    for (const auto &row : rows_) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], Width(row[i]));
        }
    }
    for (size_t at = 0; at < rows_.size(); ++at) {
        const auto &row = rows_[at];
        std::string line(indent, ' ');
        for (size_t i = 0; i < row.size(); ++i) {
            const std::string padding(widths[i] - Width(row[i]), ' ');
            const bool head = at == 0 && rows_.size() > 1 && i < rows_[1].size() && IsQuantity(rows_[1][i]);
            line += (i == 0 ? "" : "  ") + (head || IsQuantity(row[i]) ? padding + row[i] : row[i] + padding);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out << line << "\n";
    }
}

void PrintRecord(std::ostream &out, const host::describe::Record &record, View view) {
    Printer(out, view).Table(record.GetType(), host::describe::ToJson(record), 0);
}

} // namespace ctl
