// Verifies a message while it fills a native record from it. Straight-line for the little-endian wire; the reversed
// byte order, which is rare, is read by the table-driven decoder of velto/shape.h.
//
// The record is zero before the first field is read, so that a failure at any point leaves only storage that the
// type's release function knows.
#pragma once

#include "velto/bounds.h"
#include "velto/describe.h"

namespace velto {

// The codec functions of one type in one unit, under their own names; defined by velto/codec.h.
template <class Unit, class Record>
struct Codec;

// Fills `count` zeroed records from the tables that as many offset words lead to.
template <class Unit, class Record>
bool DecodeRun(const Message &message, const uint8_t *words, uint32_t count, Record *records) {
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t position = TablePosition(message, words + size_t{4} * i);
        if (position == 0 ||
            !Codec<Unit, Record>::kUnpackNonRoot(message.bytes, message.length, records + i, position)) {
            return false;
        }
    }
    return true;
}

template <class Unit, class Slot, class Record>
bool DecodeReference(const Message &message, Place place, Record &record, const char *function) {
    using Element = typename Slot::Element;
    auto &value = Slot::Get(record);
    uint32_t count = 0;
    if constexpr (Slot::kKind == Kind::kTable) {
        return DecodeRun<Unit>(message, place.at, 1, &value);
    } else if (!Follow(place)) {
        return false;
    }
    if constexpr (Slot::kKind == Kind::kBytes || Slot::kKind == Kind::kArray64) {
        if (!TakeCount(place, sizeof(Element), count) || count != Slot::kLength) {
            return false;
        }
        memcpy(value, place.at, sizeof value);
        return true;
    } else if constexpr (Slot::kKind == Kind::kTableRun) {
        return TakeCount(place, 4, count) && count == Slot::kLength && DecodeRun<Unit>(message, place.at, count, value);
    } else if constexpr (Slot::kKind == Kind::kString) {
        return TakeCount(place, 1, count) && (value = CopyString(Unit::binding, place, count, function)) != nullptr;
    } else if constexpr (IsVectorKind(Slot::kKind)) {
        constexpr bool kTables = Slot::kKind == Kind::kTableVector;
        if (!TakeCount(place, kTables ? 4 : uint32_t{sizeof(Element)}, count)) {
            return false;
        }
        if (count == 0) {
            return true;
        }
        value = static_cast<Element *>(AllocArray(Unit::binding, count, sizeof(Element), function));
        if (value == nullptr) {
            return false;
        }
        Slot::Count(record) = count;
        const size_t size = size_t{count} * sizeof(Element);
        if constexpr (kTables) {
            memset(value, 0, size);
            return DecodeRun<Unit>(message, place.at, count, value);
        } else {
            memcpy(value, place.at, size);
            return true;
        }
    }
}

template <class Unit, class Slot, size_t kIndex, class Record>
bool DecodeSlot(const Message &message, const OpenedTable &table, Record &record, const char *function) {
    const uint32_t offset = Load<uint16_t>(table.slots + 2 * kIndex);
    Place field;
    if constexpr (Slot::kKind == Kind::kScalar && sizeof(typename Slot::Value) <= 4) {
        // An absent field reads the distance word and drops it: cheaper than a branch that mispredicts.
        using Value = typename Slot::Value;
        if (!GoToField(table, offset, sizeof(Value), field)) {
            return false;
        }
        const auto value = Load<Value>(field.at);
        Slot::Get(record) = offset != 0 ? value : Value{0};
        return true;
    } else if (offset == 0) {
        return true;
    } else if constexpr (Slot::kKind == Kind::kScalar) {
        if (!GoToField(table, offset, sizeof(typename Slot::Value), field)) {
            return false;
        }
        Slot::Get(record) = Load<typename Slot::Value>(field.at);
        return true;
    } else {
        return GoToField(table, offset, 4, field) && DecodeReference<Unit, Slot>(message, field, record, function);
    }
}

// Fills a zeroed record from a verified table. On failure the record holds only storage of its own or zeros.
template <class Unit, class Record>
bool DecodeFields(const Message &message, const OpenedTable &table, Record &record, const char *function) {
    return AllSlots<Record>(
        [&]<class Slot, size_t kIndex>() { return DecodeSlot<Unit, Slot, kIndex>(message, table, record, function); });
}

// Fills a zeroed record, one inside another, from the table at `position`.
template <class Unit, class Record>
bool DecodeTable(const Message &message, uint32_t position, Record &record, const char *function) {
    OpenedTable table;
    uint8_t padding[2 * kSlotNum<Record> + 1];
    return OpenTable(Unit::binding, message, position, kSlotNum<Record>, padding, function, table) &&
           DecodeFields<Unit>(message, table, record, function);
}

} // namespace velto
