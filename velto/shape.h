// A type described at run time, and what works from that description: the codecs of the reversed byte order. No peer
// in service uses that order, so it has one small table-driven decoder instead of a second copy of every straight-line
// one, and its encoder turns the finished little-endian message around.
#pragma once

#include <algorithm>

#include "velto/bounds.h"
#include "velto/describe.h"

namespace velto {

struct TypeShape;

struct SlotShape {
    Kind kind;
    uint8_t width;   // bytes of a scalar, or of an element of an array or vector that is not of tables
    uint16_t offset; // of the member, or of a vector's pointer
    uint16_t length; // declared, of arrays and runs; of vectors, the offset of the count
    const TypeShape *table;
};

struct TypeShape {
    const SlotShape *slots;
    uint32_t slotNum;
    uint32_t size; // native
    const char *nonRootName;
};

// The shape of a described type.
template <class Record>
struct Shape {
    static const TypeShape kType;
};

template <class Slot>
constexpr SlotShape MakeSlotShape() {
    using Element = typename Slot::Element;
    static_assert(Slot::kOffset <= 0xFFFF && Slot::kLength <= 0xFFFF, "a slot's shape has 16 bits for each");
    SlotShape shape{Slot::kKind, 0, Slot::kOffset, Slot::kLength, nullptr};
    if constexpr (IsVectorKind(Slot::kKind)) {
        static_assert(Slot::kCountOffset <= 0xFFFF);
        shape.length = Slot::kCountOffset;
    }
    if constexpr (IsTableKind(Slot::kKind)) {
        shape.table = &Shape<Element>::kType;
    } else if constexpr (Slot::kKind != Kind::kString) {
        shape.width = sizeof(Element);
    }
    return shape;
}

template <class SlotList>
struct SlotShapes;
template <class... Slot>
struct SlotShapes<SlotList<Slot...>> {
    static constexpr SlotShape kSlots[] = {MakeSlotShape<Slot>()..., {}};
};

template <class Record>
constexpr TypeShape Shape<Record>::kType{SlotShapes<typename Table<Record>::Slots>::kSlots, kSlotNum<Record>,
                                         kNativeSize<Record>, Table<Record>::kUnpackNonRoot};

template <class Value>
inline void Set(uint8_t *record, size_t offset, Value value) {
    memcpy(record + offset, &value, sizeof value);
}

// Copies scalars and reverses each.
inline void CopyReversed(uint8_t *to, const uint8_t *from, size_t count, size_t width) {
    for (size_t i = 0; i < count * width; ++i) {
        to[i] = from[i / width * width + (width - 1 - i % width)];
    }
}

class ReversedDecoder {
public:
    ReversedDecoder(platform::Binding &binding, const Message &message) : binding_(binding), message_(message) {}

    // Fills a zeroed record from the table at `position`.
    bool DecodeTable(const TypeShape &type, uint32_t position, uint8_t *record, const char *function) {
        OpenedTable table;
        uint8_t padding[2 * kMaxSlots];
        if (!OpenTable<true>(binding_, message_, position, type.slotNum, padding, function, table)) {
            return false;
        }
        return DecodeFields(type, table, record, function);
    }

    // The same from a table that has been verified.
    bool DecodeFields(const TypeShape &type, const OpenedTable &table, uint8_t *record, const char *function) {
        for (uint32_t i = 0; i < type.slotNum; ++i) {
            const uint32_t offset = Load<uint16_t, true>(table.slots + 2 * i);
            if (offset != 0 && !DecodeSlot(type.slots[i], table, offset, record, function)) {
                return false;
            }
        }
        return true;
    }

    static constexpr uint32_t kMaxSlots = 40;

private:
    bool DecodeSlot(const SlotShape &slot, const OpenedTable &table, uint32_t offset, uint8_t *record,
                    const char *function) {
        Place place;
        if (!GoToField(table, offset, slot.kind == Kind::kScalar ? slot.width : 4, place)) {
            return false;
        }
        uint32_t count = 1;
        switch (slot.kind) {
        case Kind::kScalar:
            CopyReversed(record + slot.offset, place.at, 1, slot.width);
            return true;
        case Kind::kTable:
            return DecodeRun(*slot.table, place.at, 1, record + slot.offset);
        case Kind::kTableRun:
            return Follow<true>(place) && TakeCount<true>(place, 4, count) && count == slot.length &&
                   DecodeRun(*slot.table, place.at, count, record + slot.offset);
        case Kind::kBytes:
        case Kind::kArray64:
            if (!Follow<true>(place) || !TakeCount<true>(place, slot.width, count) || count != slot.length) {
                return false;
            }
            CopyReversed(record + slot.offset, place.at, count, slot.width);
            return true;
        case Kind::kString: {
            if (!Follow<true>(place) || !TakeCount<true>(place, 1, count)) {
                return false;
            }
            char *const text = CopyString(binding_, place, count, function);
            Set(record, slot.offset, text);
            return text != nullptr;
        }
        default:
            return Follow<true>(place) && DecodeVector(slot, place, record, function);
        }
    }

    bool DecodeVector(const SlotShape &slot, Place place, uint8_t *record, const char *function) {
        uint32_t count;
        if (!TakeCount<true>(place, slot.table != nullptr ? 4 : slot.width, count)) {
            return false;
        }
        if (count == 0) {
            return true;
        }
        const uint32_t width = slot.table != nullptr ? slot.table->size : slot.width;
        auto *const elements = static_cast<uint8_t *>(AllocArray(binding_, count, width, function));
        if (elements == nullptr) {
            return false;
        }
        Set(record, slot.offset, elements);
        Set(record, slot.length, count);
        if (slot.table == nullptr) {
            CopyReversed(elements, place.at, count, width);
            return true;
        }
        memset(elements, 0, size_t{count} * width);
        return DecodeRun(*slot.table, place.at, count, elements);
    }

    bool DecodeRun(const TypeShape &type, const uint8_t *words, uint32_t count, uint8_t *elements) {
        for (uint32_t i = 0; i < count; ++i) {
            const uint32_t position = TablePosition<true>(message_, words + size_t{4} * i);
            if (position == 0 || !DecodeTable(type, position, elements + size_t{type.size} * i, type.nonRootName)) {
                return false;
            }
        }
        return true;
    }

    platform::Binding &binding_;
    Message message_;
};

template <class Scalar>
inline Scalar TurnAround(uint8_t *at) {
    const auto value = Load<Scalar>(at);
    Store(at, Reversed(value));
    return value;
}

// Reverses, in place, every scalar of the table at `table`, in a message that this library has just written.
inline void ReverseTable(const TypeShape &type, uint8_t *table) {
    uint8_t *const vtable = table - static_cast<int32_t>(TurnAround<uint32_t>(table));
    TurnAround<uint16_t>(vtable);
    TurnAround<uint16_t>(vtable + 2);
    for (uint32_t i = 0; i < type.slotNum; ++i) {
        const SlotShape &slot = type.slots[i];
        const uint32_t offset = TurnAround<uint16_t>(vtable + 4 + size_t{2} * i);
        uint8_t *at = table + offset;
        if (offset == 0) {
            continue;
        }
        if (slot.kind == Kind::kScalar) {
            std::reverse(at, at + slot.width);
            continue;
        }
        at += TurnAround<uint32_t>(at);
        if (slot.kind == Kind::kTable) {
            ReverseTable(*slot.table, at);
            continue;
        }
        const auto count = TurnAround<uint32_t>(at);
        at += 4;
        const uint32_t width = slot.table != nullptr ? 0 : slot.width;
        for (uint32_t k = 0; k < count && slot.kind != Kind::kString; ++k) {
            if (slot.table != nullptr) {
                uint8_t *const word = at + size_t{4} * k;
                ReverseTable(*slot.table, word + TurnAround<uint32_t>(word));
            } else {
                std::reverse(at + size_t{width} * k, at + size_t{width} * (k + 1));
            }
        }
    }
}

inline void ReverseMessage(const TypeShape &type, uint8_t *message) {
    ReverseTable(type, message + TurnAround<uint32_t>(message));
}

} // namespace velto
