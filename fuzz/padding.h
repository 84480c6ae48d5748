// The bytes that belong to nothing: of a record those that no member has, of a message those that no reader visits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "fuzz/input.h"
#include "velto/registry.h"

namespace fuzz {

using velto::Kind;
using velto::SlotShape;
using velto::TypeShape;

template <class Value>
Value Get(const uint8_t *record, size_t offset) {
    Value value;
    memcpy(&value, record + offset, sizeof value);
    return value;
}

// Calls visit(type, table) for each table that a record holds directly: nested, in a run or in a vector.
template <class Visit>
void EachTable(const TypeShape &type, const uint8_t *record, Visit visit) {
    for (size_t i = 0; i < type.slotNum; ++i) {
        const SlotShape &slot = type.Slot(i);
        if (!velto::IsTableKind(slot.kind)) {
            continue;
        }
        const TypeShape &element = *type.Element(slot).type;
        const bool isVector = slot.kind == Kind::kTableVector;
        const uint8_t *const tables = isVector ? Get<const uint8_t *>(record, slot.offset) : record + slot.offset;
        const size_t count = isVector                    ? Get<uint32_t>(record, slot.length)
                             : slot.kind == Kind::kTable ? 1
                                                         : slot.length;
        for (size_t k = 0; k < count; ++k) {
            visit(element, tables + k * element.size);
        }
    }
}

inline size_t SizeInRecord(const TypeShape &type, const SlotShape &slot) {
    switch (slot.kind) {
    case Kind::kScalar:
        return slot.width;
    case Kind::kBytes:
    case Kind::kArray64:
        return size_t{slot.length} * slot.width;
    case Kind::kTable:
        return type.Element(slot).type->size;
    case Kind::kTableRun:
        return size_t{slot.length} * type.Element(slot).type->size;
    default:
        return sizeof(void *);
    }
}

// The offsets of the bytes of a type's record that none of its own members has.
inline std::vector<size_t> Padding(const TypeShape &type) {
    std::vector<bool> used(type.size);
    const auto use = [&](size_t offset, size_t size) {
        for (size_t i = offset; i < offset + size; ++i) {
            used.at(i) = true;
        }
    };
    for (size_t i = 0; i < type.slotNum; ++i) {
        const SlotShape &slot = type.Slot(i);
        use(slot.offset, SizeInRecord(type, slot));
        if (velto::IsVectorKind(slot.kind)) {
            use(slot.length, sizeof(uint32_t)); // the count's place
        }
    }
    std::vector<size_t> padding;
    for (size_t i = 0; i < used.size(); ++i) {
        if (!used[i]) {
            padding.push_back(i);
        }
    }
    return padding;
}

// Whether all padding of a record is 0, and of the tables that it holds.
inline bool PaddingIsZero(const TypeShape &type, const uint8_t *record) {
    static std::map<const TypeShape *, std::vector<size_t>> known;
    const auto [found, isNew] = known.try_emplace(&type);
    if (isNew) {
        found->second = Padding(type);
    }
    for (const size_t offset : found->second) {
        if (record[offset] != 0) {
            return false;
        }
    }
    bool isZero = true;
    EachTable(type, record, [&](const TypeShape &element, const uint8_t *table) {
        isZero = isZero && PaddingIsZero(element, table);
    });
    return isZero;
}

// Reads a message that an encoder has just written, trusting it, and keeps which bytes that took.
class Visited {
public:
    Visited(const TypeShape &type, const Block &message, bool swapped)
        : message_(message), swapped_(swapped), visited_(message.size) {
        Table(type, Word<uint32_t>(0));
    }

    bool Has(size_t at) const { return visited_[at]; }

private:
    void Mark(size_t at, size_t size) {
        for (size_t i = at; i < at + size; ++i) {
            visited_.at(i) = true;
        }
    }

    template <class Value>
    Value Word(size_t at) {
        Mark(at, sizeof(Value));
        const auto value = Get<Value>(message_.data(), at);
        return swapped_ ? velto::Reversed(value) : value;
    }

    void Table(const TypeShape &type, size_t at) {
        const size_t vtable = at - static_cast<size_t>(static_cast<int32_t>(Word<uint32_t>(at)));
        Word<uint32_t>(vtable); // its size, and the table's
        for (size_t i = 0; i < type.slotNum; ++i) {
            const size_t offset = Word<uint16_t>(vtable + 4 + 2 * i);
            if (offset != 0) {
                Field(type, type.Slot(i), at + offset);
            }
        }
    }

    void Field(const TypeShape &type, const SlotShape &slot, size_t at) {
        if (slot.kind == Kind::kScalar) {
            Mark(at, slot.width);
            return;
        }
        at += Word<uint32_t>(at);
        if (slot.kind == Kind::kTable) {
            Table(*type.Element(slot).type, at);
            return;
        }
        const size_t count = Word<uint32_t>(at);
        at += 4;
        if (!velto::IsTableKind(slot.kind)) {
            Mark(at, count * slot.width + (slot.kind == Kind::kString ? 1 : 0)); // with its 0
            return;
        }
        for (size_t i = 0; i < count; ++i, at += 4) {
            Table(*type.Element(slot).type, at + Word<uint32_t>(at));
        }
    }

    const Block &message_;
    const bool swapped_;
    std::vector<bool> visited_;
};

} // namespace fuzz
