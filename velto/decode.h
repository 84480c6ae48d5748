// Verifies a message while it fills a native record from it. Straight-line for what peers send: little-endian, with
// every slot that the type has. The rest is left to the table-driven decoder of velto/shape.h.
//
// The record is zero before the first field is read, so that a failure at any point leaves only storage that the
// type's release function knows.
#pragma once

#include "velto/bounds.h"
#include "velto/describe.h"
#include "velto/layout.h"
#include "velto/shape.h"

namespace velto {

// The codec functions of one type in one unit, under their own names; defined by velto/codec.h.
template <class Unit, class Record>
struct Codec;

template <class Unit, class Record>
bool DecodeNested(const Message &message, uint32_t position, Record &record, const char *function);

// A type without tables inside is read where it is met, if there is room; others by their own function.
template <class Record>
constexpr bool kReadInPlace = kElementNum<Record> == 0 && kPrefersSpeed;

template <class Unit, class Record>
[[gnu::always_inline]] inline bool DecodeElement(const Message &message, uint32_t position, Record &record) {
    if constexpr (kReadInPlace<Record>) {
        return DecodeNested<Unit>(message, position, record, Table<Record>::kUnpackNonRoot);
    } else {
        return Codec<Unit, Record>::kUnpackNonRoot(message.bytes, message.length, &record, position) != nullptr;
    }
}

// Fills `count` records, zero from kClearFrom on, from the tables that as many offset words lead to.
template <class Unit, class Record>
bool DecodeRun(Message message, const uint8_t *words, uint32_t count, Record *records) {
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t position = TablePosition(message, words + size_t{4} * i);
        if (position == 0 || !DecodeElement<Unit>(message, position, records[i])) [[unlikely]] {
            return false;
        }
    }
    return true;
}

template <class Unit, class Slot, class Record>
bool DecodeReference(const Message &message, Place place, Record &record, const char *function) {
    using Element = typename Slot::Element;
    auto &value = Slot::Get(record);
    Count count{};
    if constexpr (Slot::kKind == Kind::kTable) {
        return DecodeRun<Unit>(message, place.at, 1, &value);
    } else if (!Follow(place)) [[unlikely]] {
        return false;
    }
    if constexpr (Slot::kKind == Kind::kBytes || Slot::kKind == Kind::kArray64) {
        if (!TakeCount(place, sizeof(Element), count) || count != Count{Slot::kLength}) [[unlikely]] {
            return false;
        }
        CopyArray<sizeof value>(value, place.at);
        return true;
    } else if constexpr (Slot::kKind == Kind::kTableRun) {
        return TakeCount(place, 4, count) && count == Count{Slot::kLength} &&
               DecodeRun<Unit>(message, place.at, Slot::kLength, value);
    } else if constexpr (Slot::kKind == Kind::kString) {
        return TakeCount(place, 1, count) && (value = CopyString(Unit::binding, place, count, function)) != nullptr;
    } else if constexpr (IsVectorKind(Slot::kKind)) {
        constexpr bool kTables = Slot::kKind == Kind::kTableVector;
        if (!TakeCount(place, kTables ? 4 : uint32_t{sizeof(Element)}, count)) {
            return false;
        }
        if (count == Count{0}) {
            return true;
        }
        value = static_cast<Element *>(AllocArray(Unit::binding, count, sizeof(Element), function));
        if (value == nullptr) {
            return false;
        }
        Slot::Count(record) = Number(count);
        const size_t size = Bytes(count, sizeof(Element));
        if constexpr (kTables) {
            if constexpr (kClearFrom<Element> < kNativeSize<Element>) {
                memset(value, 0, size); // a text in front too, as it may turn out to be absent
            }
            return DecodeRun<Unit>(message, place.at, Number(count), value);
        } else {
            memcpy(value, place.at, size);
            return true;
        }
    }
}

template <class Unit, class Slot, size_t kIndex, class Record>
bool DecodeSlot(const Message &message, const OpenedTable &table, Record &record, const char *function) {
    const Offset offset = SlotOffset(table, kIndex);
    constexpr uint32_t kWidth = Slot::kKind == Kind::kScalar ? uint32_t{sizeof(typename Slot::Value)} : 4;
    if constexpr (Slot::kKind == Kind::kScalar && kWidth <= 4) {
        // An absent field reads the distance word and drops it: cheaper than a branch that mispredicts.
        if (!Holds(table, offset, kWidth)) [[unlikely]] {
            return false;
        }
        const auto value = Load<typename Slot::Value>(FieldAt(table, offset).at);
        Slot::Get(record) = offset != kAbsent ? value : typename Slot::Value{0};
        return true;
    } else if (offset == kAbsent) {
        if constexpr (Slot::kOffset < kClearFrom<Record>) {
            memset(&Slot::Get(record), 0, sizeof(typename Slot::Value));
        }
        return true;
    } else if (!Holds(table, offset, kWidth)) [[unlikely]] {
        return false;
    } else if constexpr (Slot::kKind == Kind::kScalar) {
        Slot::Get(record) = Load<typename Slot::Value>(FieldAt(table, offset).at);
        return true;
    } else {
        return DecodeReference<Unit, Slot>(message, FieldAt(table, offset), record, function);
    }
}

// Fills a record, zero from kClearFrom on, from a verified table. On failure the record holds only storage of its own
// or zeros.
template <class Unit, class Record>
bool DecodeFields(const Message &message, const OpenedTable &table, Record &record, const char *function) {
    return AllSlots<Record>([&]<class Slot, size_t kIndex>() {
        if constexpr (Slot::kOffset < kClearFrom<Record>) {
            ClearGap<Record, kIndex>(record);
        }
        return DecodeSlot<Unit, Slot, kIndex>(message, table, record, function);
    });
}

// What became of a table, or is left to do with it.
enum class Opened {
    kRefused,  // nothing was written
    kFailed,   // a field failed
    kDone,     // all fields are read
    kStraight, // the fields are the type's own decoder's to read
};

// Fills a zeroed record from a verified table as its type's shape says.
template <class Unit>
[[gnu::cold, gnu::noinline]] Opened DecodeByShape(Message message, const TypeShape &type, OpenedTable table,
                                                  void *record, const char *function) {
    TableDriven<false> decoder(Unit::binding, message);
    return decoder.DecodeFields(type, table, static_cast<uint8_t *>(record), function) ? Opened::kDone
                                                                                       : Opened::kFailed;
}

// Verifies the table at `position`; reads it here when it lacks slots, else leaves it to the type's own decoder.
template <class Unit, class Type>
VELTO_FRAME Opened OpenNested(const Message &message, uint32_t position, const Type &type, void *record,
                              const char *function, OpenedTable &table) {
    if (!OpenTableInFrame(Unit::binding, message, position, function, table)) [[unlikely]] {
        return Opened::kRefused;
    }
    if (table.slotNum >= type.slotNum) [[likely]] {
        return Opened::kStraight;
    }
    if constexpr (kPrefersSpeed) {
        memset(record, 0, type.clearFrom);
    }
    return DecodeByShape<Unit>(message, type, table, record, function);
}

// Reads the table at `position` if it has this form; else the record is as it was.
template <Form kForm, class Record>
[[gnu::always_inline]] inline bool DecodeBlock(const Message &message, uint32_t position, Record &record) {
    constexpr auto &kPlaces = kLayout<Record, kForm>;
    const uint8_t *const block = BytesAround(message, position, kPlaces.table, kPlaces.size - kPlaces.table);
    if (block == nullptr || !HasStructure<kForm, Record>(block)) {
        return false;
    }
    ReadBlock<kForm>(block, record);
    return true;
}

// Reads the table at `position` into a record that is zero from kClearFrom on.
template <class Unit, class Record>
[[gnu::always_inline]] inline bool DecodeNested(const Message &message, uint32_t position, Record &record,
                                                const char *function) {
    if constexpr (kHasFull<Record>) {
        if (DecodeBlock<Form::kFull>(message, position, record)) [[likely]] {
            return true;
        }
    }
    OpenedTable table;
    const Opened opened = OpenNested<Unit>(message, position, FrameShape<Record>(), &record, function, table);
    return opened == Opened::kStraight ? DecodeFields<Unit>(message, table, record, function) : opened == Opened::kDone;
}

} // namespace velto
