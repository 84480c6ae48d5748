// The regular form: how many bytes a record takes, and writing them in one pass. A table is its vtable, its distance
// word, the scalars that are not 0, an offset word for each present reference, and then what those refer to.
//
// The templates are static so that what a single codec calls is compiled into it: a library of two hundred types is
// smaller for it.
#pragma once

#include "tarn_sysdiag/platform/securec.h"
#include "velto/bytes.h"
#include "velto/describe.h"
#include "velto/full.h"
#include "velto/layout.h"

namespace velto {

template <class Slot>
constexpr bool kIsReference = Slot::kKind != Kind::kScalar;

// Whether a reference is on the wire whatever the record holds.
template <class Slot>
constexpr bool kAlwaysPresent = Slot::kKind == Kind::kBytes || Slot::kKind == Kind::kArray64 ||
                                Slot::kKind == Kind::kTable || Slot::kKind == Kind::kTableRun;

template <class Slot, class Record>
bool IsPresent(const Record &record) {
    if constexpr (kAlwaysPresent<Slot>) {
        return true;
    } else if constexpr (IsVectorKind(Slot::kKind)) {
        return Slot::Get(record) != nullptr && Slot::Count(record) != 0;
    } else if constexpr (Slot::kKind == Kind::kString) {
        return Slot::Get(record) != nullptr;
    } else {
        return Slot::Get(record) != 0;
    }
}

// Sizes of records with strings or vectors are added up in 64 bits: many elements may share one long string.
template <class Record>
using SizeOf = std::conditional_t<kOwns<Record>, uint64_t, uint32_t>;

template <class Record>
static SizeOf<Record> TableSize(const Record &record);

template <class Size, class Element>
static Size RunSize(const Element *elements, uint32_t count) {
    Size size = 0;
    for (uint32_t i = 0; i < count; ++i) {
        size += 4 + TableSize(elements[i]);
    }
    return size;
}

// The bytes that a present reference takes behind its offset word.
template <class Slot, class Record>
static auto DataSize(const Record &record) {
    const auto &value = Slot::Get(record);
    if constexpr (Slot::kKind == Kind::kString) {
        return uint64_t{4} + strlen(value) + 1;
    } else if constexpr (Slot::kKind == Kind::kBytes || Slot::kKind == Kind::kArray64) {
        return uint32_t{4 + sizeof value};
    } else if constexpr (Slot::kKind == Kind::kTable) {
        return TableSize(value);
    } else if constexpr (Slot::kKind == Kind::kTableRun) {
        return 4 + RunSize<SizeOf<typename Slot::Element>>(value, Slot::kLength);
    } else if constexpr (Slot::kKind == Kind::kTableVector) {
        return 4 + RunSize<uint64_t>(value, Slot::Count(record));
    } else {
        return uint64_t{4} + uint64_t{Slot::Count(record)} * sizeof *value;
    }
}

template <class Record>
static SizeOf<Record> TableSize(const Record &record) {
    if constexpr (kHasFull<Record>) {
        return kLayout<Record, Form::kFull>.size - ZeroBytes(record);
    }
    SizeOf<Record> size = kVtableSize<Record> + 4;
    EachSlot<Record>([&]<class Slot, size_t>() {
        if constexpr (!kIsReference<Slot>) {
            size += Slot::Get(record) != 0 ? uint32_t{sizeof(typename Slot::Value)} : 0;
        } else if (IsPresent<Slot>(record)) {
            size += 4 + DataSize<Slot>(record);
        }
    });
    return size;
}

// The size of a record's regular form; 0 when it passes the 32 bits that the interface has for it.
template <class Record>
static uint32_t RegularSize(const Record &record) {
    const SizeOf<Record> size = 4 + TableSize(record);
    return size > UINT32_MAX ? 0 : static_cast<uint32_t>(size);
}

// Large blocks go through the platform's own copy where it has one.
inline void CopyBlock(uint8_t *to, const uint8_t *from, uint32_t size) {
    const auto copy = memcpy_sOptAsm != nullptr ? memcpy_sOptAsm : memcpy_s;
    static_cast<void>(copy(to, size, from, size));
}

template <class Record>
static uint8_t *WriteTable(uint8_t *vtable, const Record &record);

// Writes a count, as many offset words, and the tables that they lead to. Returns the end of what it wrote.
template <class Element>
static uint8_t *WriteRun(uint8_t *at, const Element *elements, uint32_t count) {
    Store(at, count);
    uint8_t *word = at + 4;
    at = word + size_t{4} * count;
    for (uint32_t i = 0; i < count; ++i, word += 4) {
        Store(word, static_cast<uint32_t>(at + kVtableSize<Element> - word));
        at = WriteTable(at, elements[i]);
    }
    return at;
}

// Writes what a present reference refers to. Returns the end of what it wrote.
template <class Slot, class Record>
static uint8_t *WriteData(uint8_t *at, const Record &record) {
    const auto &value = Slot::Get(record);
    if constexpr (Slot::kKind == Kind::kString) {
        const auto length = static_cast<uint32_t>(strlen(value));
        Store(at, length);
        memcpy(at + 4, value, size_t{length} + 1);
        return at + 4 + length + 1;
    } else if constexpr (Slot::kKind == Kind::kBytes || Slot::kKind == Kind::kArray64) {
        Store(at, Slot::kLength);
        CopyArray<sizeof value>(at + 4, value);
        return at + 4 + sizeof value;
    } else if constexpr (Slot::kKind == Kind::kTable) {
        return WriteTable(at, value);
    } else if constexpr (Slot::kKind == Kind::kTableRun) {
        return WriteRun(at, value, Slot::kLength);
    } else if constexpr (Slot::kKind == Kind::kTableVector) {
        return WriteRun(at, value, Slot::Count(record));
    } else if constexpr (Slot::kKind == Kind::kVector32) {
        const uint32_t count = Slot::Count(record);
        Store(at, count);
        memcpy(at + 4, value, size_t{4} * count);
        return at + 4 + size_t{4} * count;
    } else {
        const uint32_t count = Slot::Count(record);
        Store(at, count);
        CopyBlock(at + 4, value, count);
        return at + 4 + count;
    }
}

// An offset word leads to a nested table itself, which stands behind its vtable; anything else starts where it leads.
template <class Value>
constexpr uint32_t kLead = 0;
template <Described Record>
constexpr uint32_t kLead<Record> = kVtableSize<Record>;

// All bits for a scalar that is present, none for one that is 0. The compilers would make branches of what depends on
// it, which scalars as they are in life mispredict every other time.
[[gnu::always_inline]] inline uint32_t Mask(bool present) {
    uint32_t mask = 0U - static_cast<uint32_t>(present);
    asm("" : "+r"(mask));
    return mask;
}

// Writes a table behind its vtable. Returns the end of all that it wrote.
template <class Record>
static uint8_t *WriteTable(uint8_t *vtable, const Record &record) {
    if constexpr (kHasFull<Record>) {
        if (IsFull(record)) [[likely]] {
            WriteBlock<Form::kFull>(vtable, record);
            return vtable + kLayout<Record, Form::kFull>.size;
        }
    }
    uint8_t *const table = vtable + kVtableSize<Record>;
    uint32_t end = 4; // of the scalars, from the table
    uint32_t references = 0;
    const auto setSlot = [&](size_t index, uint32_t place) { // 0: absent
        Store(vtable + 4 + 2 * index, static_cast<uint16_t>(place));
    };
    EachSlot<Record>([&]<class Slot, size_t kIndex>() {
        if constexpr (kIsReference<Slot>) {
            references += IsPresent<Slot>(record) ? 1 : 0;
        } else {
            const auto value = Slot::Get(record);
            if constexpr (kPrefersSpeed) {
                // What is 0 is stored where the distance word will be.
                const uint32_t mask = Mask(value != 0);
                setSlot(kIndex, end & mask);
                if constexpr (sizeof value == 8) {
                    Store(table + (end & mask), static_cast<uint32_t>(value));
                    Store(table + ((end + 4) & mask), static_cast<uint32_t>(value >> 32));
                } else {
                    Store(table + (end & mask), value);
                }
                end += uint32_t{sizeof value} & mask;
            } else if (value != 0) {
                setSlot(kIndex, end);
                Store(table + end, value);
                end += sizeof value;
            } else {
                setSlot(kIndex, 0);
            }
        }
    });

    uint8_t *at = table + end;
    uint8_t *word = at;
    at += 4 * references;
    EachSlot<Record>([&]<class Slot, size_t kIndex>() {
        if constexpr (kIsReference<Slot>) {
            if (IsPresent<Slot>(record)) {
                setSlot(kIndex, static_cast<uint32_t>(word - table));
                Store(word, static_cast<uint32_t>(at - word) + kLead<typename Slot::Value>);
                at = WriteData<Slot>(at, record);
                word += 4;
            } else {
                setSlot(kIndex, 0);
            }
        }
    });
    Store(vtable, static_cast<uint16_t>(kVtableSize<Record>));
    Store(vtable + 2, static_cast<uint16_t>(at - table));
    Store(table, kVtableSize<Record>);
    return at;
}

// Writes a record's regular form. Returns the end of what it wrote.
template <class Record>
static uint8_t *WriteRegular(uint8_t *message, const Record &record) {
    Store(message, 4 + kVtableSize<Record>);
    return WriteTable(message + 4, record);
}

} // namespace velto
