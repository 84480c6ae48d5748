#include "host/ctl/print.h"

#include <algorithm>

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

bool IsNumber(const std::string &text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Values that take one line.
bool IsFlat(const Slot &slot) {
    return slot.table == nullptr;
}

bool IsFlat(const Type &type) {
    return std::all_of(type.slots.begin(), type.slots.end(), [](const Slot &slot) { return IsFlat(slot); });
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

bool HasLines(const Json &value) {
    return value.is_string() && value.get_ref<const std::string &>().find('\n') != std::string::npos;
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

void PrintTable(std::ostream &out, const Type &type, const Json &json, size_t indent);

void PrintElements(std::ostream &out, const Type &type, const Json &array, size_t indent) {
    if (!IsFlat(type)) {
        for (size_t i = 0; i < array.size(); ++i) {
            out << std::string(indent, ' ') << "[" << i << "]\n";
            PrintTable(out, type, array[i], indent + 2);
        }
        return;
    }
    Columns columns;
    std::vector<std::string> head;
    for (const Slot &slot : type.slots) {
        head.emplace_back(slot.name);
    }
    columns.Add(std::move(head));
    for (const Json &element : array) {
        std::vector<std::string> row;
        for (const Slot &slot : type.slots) {
            row.push_back(OneLine(element[slot.name]));
        }
        columns.Add(std::move(row));
    }
    columns.Print(out, indent);
}

void PrintTable(std::ostream &out, const Type &type, const Json &json, size_t indent) {
    size_t width = 0;
    for (const Slot &slot : type.slots) {
        width = std::max(width, strlen(slot.name));
    }
    for (const Slot &slot : type.slots) {
        const Json &value = json[slot.name];
        const std::string name = std::string(indent, ' ') + slot.name;
        const std::string padding(width - strlen(slot.name) + 2, ' ');
        if (slot.kind == Kind::kTable) {
            out << name << "\n";
            PrintTable(out, *slot.table, value, indent + 2);
        } else if (!IsFlat(slot)) {
            out << name << padding << value.size() << (value.size() == 1 ? " element\n" : " elements\n");
            if (!value.empty()) {
                PrintElements(out, *slot.table, value, indent + 2);
            }
        } else if (HasLines(value)) {
            out << name << "\n";
            PrintLines(out, value.get_ref<const std::string &>(), indent + 2);
        } else {
            out << name << padding << OneLine(value) << "\n";
        }
    }
}

} // namespace

void Columns::Print(std::ostream &out, size_t indent) const {
    std::vector<size_t> widths;
    for (const auto &row : rows_) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], Width(row[i]));
        }
    }
    for (const auto &row : rows_) {
        std::string line(indent, ' ');
        for (size_t i = 0; i < row.size(); ++i) {
            const std::string padding(widths[i] - Width(row[i]), ' ');
            line += (i == 0 ? "" : "  ") + (IsNumber(row[i]) ? padding + row[i] : row[i] + padding);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out << line << "\n";
    }
}

void PrintRecord(std::ostream &out, const host::describe::Record &record) {
    PrintTable(out, record.GetType(), host::describe::ToJson(record), 0);
}

} // namespace ctl
