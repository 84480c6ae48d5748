// The fixed form: every field present, at an offset that the compiler knows. Only types without strings and vectors
// have it. A field stands at its natural alignment within its table, at most 4; a table's vtable follows its data at
// the next multiple of 4. Bytes in the gaps are not written.
#pragma once

#include <array>

#include "velto/bytes.h"
#include "velto/describe.h"

namespace velto {

template <class Record>
constexpr bool kHasFixed = !kOwns<Record>;

constexpr uint32_t AlignUp(uint32_t value, uint32_t alignment) {
    return (value + alignment - 1) / alignment * alignment;
}

// Places within a table, in bytes from its start.
template <size_t kSlots>
struct FixedLayout {
    std::array<uint32_t, kSlots> fields;
    uint32_t dataEnd; // the object length
    uint32_t vtable;
    uint32_t end; // of the vtable
};

template <class Record>
constexpr auto MakeFixedLayout();

template <class Record>
constexpr auto kFixedLayout = MakeFixedLayout<Record>();

// The bytes of one element of a run: each stands at a multiple of 4.
template <class Record>
constexpr uint32_t kFixedElement = AlignUp(kFixedLayout<Record>.end, 4);

template <class Slot>
constexpr uint32_t FixedFieldSize() {
    using Element = typename Slot::Element;
    if constexpr (Slot::kKind == Kind::kScalar) {
        return sizeof(Element);
    } else if constexpr (Slot::kKind == Kind::kTable) {
        return 4 + kFixedLayout<Element>.end;
    } else if constexpr (Slot::kKind == Kind::kTableRun) {
        return 8 + Slot::kLength * (4 + kFixedElement<Element>);
    } else {
        return 8 + Slot::kLength * uint32_t{sizeof(Element)};
    }
}

template <class Record>
constexpr auto MakeFixedLayout() {
    static_assert(kHasFixed<Record>);
    FixedLayout<kSlotNum<Record>> layout{};
    uint32_t at = 4;
    EachSlot<Record>([&]<class Slot, size_t kIndex>() {
        constexpr uint32_t kSize = FixedFieldSize<Slot>();
        at = AlignUp(at, kSize < 4 ? kSize : 4);
        layout.fields[kIndex] = at;
        at += kSize;
    });
    layout.dataEnd = at;
    layout.vtable = AlignUp(at, 4);
    layout.end = layout.vtable + 4 + 2 * uint32_t{kSlotNum<Record>};
    return layout;
}

// What the buffer for the fixed form must hold.
template <class Record>
constexpr uint32_t kFixedSize = AlignUp(4 + kFixedLayout<Record>.end, 8);

template <class Record>
static void WriteFixedTable(uint8_t *table, const Record &record);

template <class Slot, class Record>
static void WriteFixedField(uint8_t *field, const Record &record) {
    using Element = typename Slot::Element;
    const auto &value = Slot::Get(record);
    if constexpr (Slot::kKind == Kind::kScalar) {
        Store(field, value);
        return;
    } else {
        Store<uint32_t>(field, 4);
    }
    if constexpr (Slot::kKind == Kind::kTable) {
        WriteFixedTable(field + 4, value);
    } else if constexpr (Slot::kKind == Kind::kTableRun) {
        constexpr uint32_t kWords = 4 * Slot::kLength;
        Store(field + 4, Slot::kLength);
        for (uint32_t i = 0; i < Slot::kLength; ++i) {
            const uint32_t word = 8 + 4 * i;
            const uint32_t element = 8 + kWords + kFixedElement<Element> * i;
            Store(field + word, element - word);
            WriteFixedTable(field + element, value[i]);
        }
    } else if constexpr (Slot::kKind == Kind::kBytes || Slot::kKind == Kind::kArray64) {
        Store(field + 4, Slot::kLength);
        memcpy(field + 8, value, sizeof value);
    }
}

template <class Record>
static void WriteFixedTable(uint8_t *table, const Record &record) {
    constexpr auto &kLayout = kFixedLayout<Record>;
    static_assert(kLayout.fields.empty() || kLayout.fields.back() <= 0xFFFF, "a vtable entry has 16 bits");
    Store(table, static_cast<uint32_t>(-static_cast<int32_t>(kLayout.vtable)));
    Store(table + kLayout.vtable, static_cast<uint16_t>(kLayout.end - kLayout.vtable));
    Store(table + kLayout.vtable + 2, static_cast<uint16_t>(kLayout.dataEnd));
    EachSlot<Record>([&]<class Slot, size_t kIndex>() {
        constexpr uint32_t kField = kFixedLayout<Record>.fields[kIndex];
        Store(table + kLayout.vtable + 4 + 2 * kIndex, static_cast<uint16_t>(kField));
        WriteFixedField<Slot>(table + kField, record);
    });
}

} // namespace velto
