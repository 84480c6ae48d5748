// Reads a message's layout, trusting it, for tests that compare or change it place by place. It shares nothing with the
// codecs but the description of the types.
#pragma once

#include <string>
#include <vector>

#include "tests/codec/record.h"

struct Span {
    size_t at;
    size_t width;
};

struct TableAt {
    const Type *type;
    size_t at;
    size_t vtable;
    Json::json_pointer path; // of its record within the message's
};

struct Layout {
    std::vector<Span> numbers; // each offset, length, count and scalar
    std::vector<Span> bytes;   // strings with their 0, byte arrays, byte vectors
    std::vector<TableAt> tables;
};

Layout ReadLayout(const Type &type, const Bytes &message);

inline uint64_t ReadNumber(const Bytes &message, size_t at, size_t width) {
    uint64_t value = 0;
    for (size_t i = width; i-- > 0;) {
        value = value << 8 | message.at(at + i);
    }
    return value;
}

inline void WriteNumber(Bytes &message, size_t at, size_t width, uint64_t value) {
    for (size_t i = 0; i < width; ++i, value >>= 8) {
        message.at(at + i) = static_cast<uint8_t>(value);
    }
}

// The message with another vtable for one of its tables, at the message's end.
inline Bytes WithVtable(Bytes message, const TableAt &table, const Bytes &vtable) {
    const size_t at = message.size();
    message.insert(message.end(), vtable.begin(), vtable.end());
    WriteNumber(message, table.at, 4, table.at - at);
    return message;
}

// The first `slots` slots of a table's vtable, and slots of no known type behind them if it has fewer.
inline Bytes VtableOf(const Bytes &message, const TableAt &table, size_t slots) {
    Bytes vtable(4 + 2 * slots, 0xFF);
    const size_t known = std::min(vtable.size(), 4 + 2 * SlotsOf(*table.type).size());
    const auto start = message.begin() + static_cast<ptrdiff_t>(table.vtable);
    std::copy(start, start + static_cast<ptrdiff_t>(known), vtable.begin());
    WriteNumber(vtable, 0, 2, vtable.size());
    return vtable;
}
