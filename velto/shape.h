// A type described at run time, and what works from that description: one small table-driven decoder for all that is
// not worth a second copy of every straight-line one, and the encoders' reversed byte order, for which the finished
// little-endian message is turned around.
#pragma once

#include <algorithm>

#include "velto/bounds.h"
#include "velto/describe.h"
#include "velto/layout.h"

namespace velto {

struct SlotShape {
    Kind kind;
    uint8_t width;   // bytes of a scalar, or of an element of a string, array or vector; of tables, which element type
    uint16_t offset; // of the member, or of a vector's pointer
    uint16_t length; // declared, of arrays and runs; of vectors, the offset of the count
};

struct TypeShape;

// A type of tables inside another, and its nested decoder's name in the log.
struct ElementShape {
    const TypeShape *type;
    const char *nonRootName;
};

// The head of a type's shape; the slots and the element types stand behind it, so that it needs no pointers to them.
struct TypeShape {
    uint16_t size;      // native
    uint16_t clearFrom; // what a decoder need not clear of a record: kClearFrom
    uint16_t slotNum;
    uint16_t elementsAt; // from the head, in bytes

    const SlotShape &Slot(size_t index) const { return reinterpret_cast<const SlotShape *>(this + 1)[index]; }

    // The element type of a slot of tables.
    const ElementShape &Element(const SlotShape &slot) const {
        const auto *const elements = reinterpret_cast<const uint8_t *>(this) + elementsAt;
        return reinterpret_cast<const ElementShape *>(elements)[slot.width];
    }
};

template <class Slot>
constexpr SlotShape MakeSlotShape(uint8_t &elementNum) {
    static_assert(Slot::kOffset <= 0xFFFF && Slot::kLength <= 0xFFFF, "a slot's shape has 16 bits for each");
    SlotShape shape{Slot::kKind, 1, Slot::kOffset, Slot::kLength};
    if constexpr (IsVectorKind(Slot::kKind)) {
        static_assert(Slot::kCountOffset <= 0xFFFF);
        shape.length = Slot::kCountOffset;
    }
    if constexpr (IsTableKind(Slot::kKind)) {
        shape.width = elementNum++;
    } else if constexpr (Slot::kKind != Kind::kString) {
        shape.width = sizeof(typename Slot::Element);
    }
    return shape;
}

// Members in front of this are overwritten, or cleared when they turn out to be absent; what follows is cleared before
// the fields are read. Storage must be, which a release may find before its field is read; where room is short, all but
// a large array at the start of a record is.
template <class Record>
constexpr uint32_t kClearFrom = [] {
    if (kHasFull<Record>) {
        return kNativeSize<Record>;
    }
    uint32_t from = 0;
    EachSlot<Record>([&]<class Slot, size_t>() {
        if constexpr (Slot::kKind == Kind::kBytes && Slot::kOffset == 0 && Slot::kLength >= 4096) {
            from = Slot::kLength;
        }
    });
    return from;
}();

template <class Record>
constexpr size_t kElementNum = [] {
    size_t num = 0;
    EachSlot<Record>([&]<class Slot, size_t>() { num += IsTableKind(Slot::kKind) ? 1 : 0; });
    return num;
}();

// The shape of a described type. Each is defined once in a program: VELTO_DEFINE_SHAPE in one source file.
template <class Record>
struct [[gnu::visibility("hidden")]] Shape {
    struct Storage {
        TypeShape head;
        SlotShape slots[kSlotNum<Record> + (kSlotNum<Record> == 0)];
        ElementShape elements[kElementNum<Record> + (kElementNum<Record> == 0)];
    };
    static const Storage kStorage;
    static constexpr const TypeShape &kType = kStorage.head;

    static constexpr Storage Make() {
        Storage storage{};
        static_assert(kNativeSize<Record> <= 0xFFFF, "a type's shape has 16 bits for its size");
        storage.head = {kNativeSize<Record>, kClearFrom<Record>, kSlotNum<Record>, offsetof(Storage, elements)};
        uint8_t elementNum = 0;
        EachSlot<Record>([&]<class Slot, size_t kIndex>() {
            if constexpr (IsTableKind(Slot::kKind)) {
                using Element = typename Slot::Element;
                storage.elements[elementNum] = {&Shape<Element>::kType, Table<Element>::kUnpackNonRoot};
            }
            storage.slots[kIndex] = MakeSlotShape<Slot>(elementNum);
        });
        return storage;
    }
};

// What a frame must know of a type: constants where it is compiled into the type's codec, else the shape.
template <class Record>
struct ConstantShape {
    static constexpr uint32_t size = kNativeSize<Record>;
    static constexpr uint32_t clearFrom = kClearFrom<Record>;
    static constexpr uint32_t slotNum = kSlotNum<Record>;
    operator const TypeShape &() const { return Shape<Record>::kType; }
};

template <class Record>
constexpr decltype(auto) FrameShape() {
    if constexpr (kPrefersSpeed) {
        return ConstantShape<Record>();
    } else {
        return (Shape<Record>::kType);
    }
}

#define VELTO_DECLARE_SHAPE(type)                                                                                      \
    template <>                                                                                                        \
    const velto::Shape<Tarn_sys_diag_##type>::Storage velto::Shape<Tarn_sys_diag_##type>::kStorage;
#define VELTO_DEFINE_SHAPE(type, specifier)                                                                            \
    template <>                                                                                                        \
    specifier constexpr velto::Shape<Tarn_sys_diag_##type>::Storage velto::Shape<Tarn_sys_diag_##type>::kStorage =     \
        Make();

template <class Value>
inline void Set(uint8_t *record, size_t offset, Value value) {
    memcpy(record + offset, &value, sizeof value);
}

// Copies scalars, turning each around where the wire's order is reversed.
template <bool kSwapped>
void CopyScalars(uint8_t *to, const uint8_t *from, size_t size, size_t width) {
    memmove(to, from, size);
    if (kSwapped && width > 1) {
        for (uint8_t *const end = to + size; to != end; to += width) {
            std::reverse(to, to + width);
        }
    }
}

// Reads what the straight-line decoders leave: messages in the reversed byte order, and tables of writers that know
// fewer slots.
template <bool kSwapped>
class TableDriven {
public:
    TableDriven(platform::Binding &binding, const Message &message) : binding_(binding), message_(message) {}

    // Fills a zeroed record from a verified table.
    bool DecodeFields(const TypeShape &type, const OpenedTable &table, uint8_t *record, const char *function) {
        const uint32_t known = table.slotNum < type.slotNum ? table.slotNum : type.slotNum;
        for (uint32_t i = 0; i < known; ++i) {
            const Offset offset = SlotOffset<kSwapped>(table, i);
            if (offset == kAbsent) {
                continue;
            }
            const SlotShape &slot = type.Slot(i);
            if (!Holds(table, offset, slot.kind == Kind::kScalar ? slot.width : 4)) {
                return false;
            }
            const Place place = FieldAt(table, offset);
            const bool decoded = IsTableKind(slot.kind)
                                     ? DecodeTables(slot, type.Element(slot), place, record, function)
                                     : DecodePlain(slot, place, record, function);
            if (!decoded) {
                return false;
            }
        }
        return true;
    }

private:
    bool DecodePlain(const SlotShape &slot, Place place, uint8_t *record, const char *function) {
        if (slot.kind == Kind::kScalar) {
            CopyScalars<kSwapped>(record + slot.offset, place.at, slot.width, slot.width);
            return true;
        }
        Count count;
        if (!Follow<kSwapped>(place) || !TakeCount<kSwapped>(place, slot.width, count)) {
            return false;
        }
        if (slot.kind == Kind::kString) {
            char *const text = CopyString(binding_, place, count, function);
            Set(record, slot.offset, text);
            return text != nullptr;
        }
        if (!IsVectorKind(slot.kind)) {
            if (count == Count{slot.length}) {
                CopyScalars<kSwapped>(record + slot.offset, place.at, Bytes(count, slot.width), slot.width);
            }
            return count == Count{slot.length};
        }
        uint8_t *const elements = NewElements(slot, count, slot.width, record, function);
        if (elements != nullptr) {
            CopyScalars<kSwapped>(elements, place.at, Bytes(count, slot.width), slot.width);
        }
        return elements != nullptr || count == Count{0};
    }

    bool DecodeTables(const SlotShape &slot, const ElementShape &element, Place place, uint8_t *record,
                      const char *function) {
        uint8_t *elements = record + slot.offset;
        Count count{1};
        if (slot.kind != Kind::kTable && (!Follow<kSwapped>(place) || !TakeCount<kSwapped>(place, 4, count))) {
            return false;
        }
        if (slot.kind == Kind::kTableRun && count != Count{slot.length}) {
            return false;
        }
        if (slot.kind == Kind::kTableVector) {
            elements = NewElements(slot, count, element.type->size, record, function);
            if (elements == nullptr) {
                return count == Count{0};
            }
            memset(elements, 0, Bytes(count, element.type->size));
        }
        return DecodeRun(element, place.at, Number(count), elements);
    }

    bool DecodeRun(const ElementShape &element, const uint8_t *words, uint32_t count, uint8_t *elements) {
        for (uint32_t i = 0; i < count; ++i) {
            const uint32_t position = TablePosition<kSwapped>(message_, words + size_t{4} * i);
            OpenedTable table;
            if (position == 0 || !OpenTable<kSwapped>(binding_, message_, position, element.nonRootName, table) ||
                !DecodeFields(*element.type, table, elements + size_t{element.type->size} * i, element.nonRootName)) {
                return false;
            }
        }
        return true;
    }

    // The storage of a vector's elements, entered in the record; null for an empty vector, or without memory.
    uint8_t *NewElements(const SlotShape &slot, Count count, uint32_t width, uint8_t *record, const char *function) {
        void *const elements = count == Count{0} ? nullptr : AllocArray(binding_, count, width, function);
        if (elements != nullptr) {
            Set(record, slot.offset, elements);
            Set(record, slot.length, Number(count));
        }
        return static_cast<uint8_t *>(elements);
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
inline void ReverseTable(const TypeShape &type, uint8_t *table);

inline void ReverseField(const TypeShape &type, const SlotShape &slot, uint8_t *at) {
    if (slot.kind == Kind::kScalar) {
        std::reverse(at, at + slot.width);
        return;
    }
    at += TurnAround<uint32_t>(at);
    if (slot.kind == Kind::kTable) {
        ReverseTable(*type.Element(slot).type, at);
        return;
    }
    const auto count = TurnAround<uint32_t>(at);
    at += 4;
    if (IsTableKind(slot.kind)) {
        for (uint32_t i = 0; i < count; ++i, at += 4) {
            ReverseTable(*type.Element(slot).type, at + TurnAround<uint32_t>(at));
        }
    } else {
        CopyScalars<true>(at, at, size_t{count} * slot.width, slot.width);
    }
}

inline void ReverseTable(const TypeShape &type, uint8_t *table) {
    uint8_t *const vtable = table - static_cast<int32_t>(TurnAround<uint32_t>(table));
    TurnAround<uint16_t>(vtable);
    TurnAround<uint16_t>(vtable + 2);
    for (uint32_t i = 0; i < type.slotNum; ++i) {
        const uint32_t offset = TurnAround<uint16_t>(vtable + 4 + size_t{2} * i);
        if (offset != 0) {
            ReverseField(type, type.Slot(i), table + offset);
        }
    }
}

inline void ReverseMessage(const TypeShape &type, uint8_t *message) {
    ReverseTable(type, message + TurnAround<uint32_t>(message));
}

} // namespace velto
