// The full form: what the regular form of a record without strings and vectors comes to when none of its scalars is 0.
// Its structure (vtables, distances, offset words, counts) is then a constant of the type, and so is the place of every
// byte. It is what most messages are, so where there is room it has straight copies of its own; any other table takes
// the general path, which comes to the same bytes and the same record.
#pragma once

#include <algorithm>
#include <array>

#include "velto/bytes.h"
#include "velto/describe.h"

namespace velto {

template <class Record>
constexpr bool kHasFull = kPrefersSpeed && !kOwns<Record>;

template <class Record>
constexpr uint32_t kVtableSize = 4 + 2 * uint32_t{kSlotNum<Record>};

// An offset word leads to a nested table itself, which stands behind its vtable; anything else starts where it leads.
template <class Value>
constexpr uint32_t kLead = 0;
template <Described Record>
constexpr uint32_t kLead<Record> = kVtableSize<Record>;

// Places within a full table, in bytes from its start.
template <size_t kSlots>
struct FullLayout {
    std::array<uint32_t, kSlots> fields; // scalars and offset words
    std::array<uint32_t, kSlots> data;   // what an offset word refers to, a nested table's vtable first
    uint32_t words;                      // the first offset word
    uint32_t wordsEnd;
    uint32_t end;
};

template <class Record>
constexpr auto MakeFullLayout();

template <class Record>
constexpr auto kFullLayout = MakeFullLayout<Record>();

template <class Record, size_t kIndex>
constexpr uint32_t kFullField = kFullLayout<Record>.fields[kIndex];
template <class Record, size_t kIndex>
constexpr uint32_t kFullData = kFullLayout<Record>.data[kIndex];

// The bytes of a full table and its vtable.
template <class Record>
constexpr uint32_t kFullSize = kVtableSize<Record> + kFullLayout<Record>.end;

template <class Slot>
constexpr uint32_t FullDataSize() {
    using Element = typename Slot::Element;
    if constexpr (Slot::kKind == Kind::kTable) {
        return kFullSize<Element>;
    } else if constexpr (Slot::kKind == Kind::kTableRun) {
        return 4 + Slot::kLength * (4 + kFullSize<Element>);
    } else {
        return 4 + Slot::kLength * uint32_t{sizeof(Element)};
    }
}

template <class Record>
constexpr auto MakeFullLayout() {
    FullLayout<kSlotNum<Record>> layout{};
    uint32_t at = 4;
    EachSlot<Record>([&]<class Slot, size_t kIndex>() {
        if constexpr (Slot::kKind == Kind::kScalar) {
            layout.fields[kIndex] = at;
            at += sizeof(typename Slot::Value);
        }
    });
    layout.words = at;
    EachSlot<Record>([&]<class Slot, size_t kIndex>() {
        if constexpr (Slot::kKind != Kind::kScalar) {
            layout.fields[kIndex] = at;
            at += 4;
        }
    });
    layout.wordsEnd = at;
    EachSlot<Record>([&]<class Slot, size_t kIndex>() {
        if constexpr (Slot::kKind != Kind::kScalar) {
            layout.data[kIndex] = at;
            at += FullDataSize<Slot>();
        }
    });
    layout.end = at;
    return layout;
}

template <size_t kSize>
constexpr void Append(std::array<uint8_t, kSize> &bytes, size_t &at, uint32_t value, uint32_t width) {
    for (uint32_t i = 0; i < width; ++i) {
        bytes[at++] = static_cast<uint8_t>(value >> 8 * i);
    }
}

// The vtable and the distance word.
template <class Record>
constexpr auto kFullHead = [] {
    std::array<uint8_t, kVtableSize<Record> + 4> head{};
    size_t at = 0;
    Append(head, at, kVtableSize<Record>, 2);
    Append(head, at, kFullLayout<Record>.end, 2);
    for (const uint32_t field : kFullLayout<Record>.fields) {
        Append(head, at, field, 2);
    }
    Append(head, at, kVtableSize<Record>, 4);
    return head;
}();

template <class Record>
constexpr auto kFullWords = [] {
    std::array<uint8_t, kFullLayout<Record>.wordsEnd - kFullLayout<Record>.words> words{};
    size_t at = 0;
    EachSlot<Record>([&]<class Slot, size_t kIndex>() {
        if constexpr (Slot::kKind != Kind::kScalar) {
            constexpr uint32_t kDistance = kFullData<Record, kIndex> - kFullField<Record, kIndex>;
            Append(words, at, kDistance + kLead<typename Slot::Value>, 4);
        }
    });
    return words;
}();

// Scalars that are neighbours in the record are so in a table, and are copied together: the bytes of such a run at the
// slot that it starts with, else 0.
template <class Record>
constexpr auto kScalarRuns = [] {
    std::array<uint32_t, kSlotNum<Record>> runs{};
    size_t first = 0, end = SIZE_MAX;
    EachSlot<Record>([&]<class Slot, size_t kIndex>() {
        if constexpr (Slot::kKind == Kind::kScalar) {
            first = Slot::kOffset == end ? first : kIndex;
            runs[first] += sizeof(typename Slot::Value);
            end = Slot::kOffset + sizeof(typename Slot::Value);
        }
    });
    return runs;
}();

// Where element `i` of a run of full tables stands behind the run's count, and what its offset word is.
template <class Slot>
constexpr uint32_t FullElementAt(uint32_t i) {
    return 4 * Slot::kLength + kFullSize<typename Slot::Element> * i;
}
template <class Slot>
constexpr uint32_t FullElementWord(uint32_t i) {
    return FullElementAt<Slot>(i) - 4 * i + kVtableSize<typename Slot::Element>;
}

// Writes the full form of a table, its vtable first.
template <class Record>
[[gnu::always_inline]] inline void WriteFull(uint8_t *vtable, const Record &record) {
    uint8_t *const table = vtable + kVtableSize<Record>;
    CopyArray<kFullHead<Record>.size()>(vtable, kFullHead<Record>.data());
    CopyArray<kFullWords<Record>.size()>(table + kFullLayout<Record>.words, kFullWords<Record>.data());
    EachSlot<Record>([&]<class Slot, size_t kIndex>() __attribute__((always_inline)) {
        constexpr uint32_t kRun = kScalarRuns<Record>[kIndex];
        const auto *const value = reinterpret_cast<const uint8_t *>(&record) + Slot::kOffset;
        uint8_t *const data = table + kFullData<Record, kIndex>;
        if constexpr (Slot::kKind == Kind::kScalar) {
            CopyArray<kRun>(table + kFullField<Record, kIndex>, value);
        } else if constexpr (Slot::kKind == Kind::kTable) {
            WriteFull(data, Slot::Get(record));
        } else if constexpr (Slot::kKind == Kind::kTableRun) {
            Store(data, Slot::kLength);
            for (uint32_t i = 0; i < Slot::kLength; ++i) {
                Store(data + 4 + 4 * i, FullElementWord<Slot>(i));
                WriteFull(data + 4 + FullElementAt<Slot>(i), Slot::Get(record)[i]);
            }
        } else {
            Store(data, Slot::kLength);
            CopyArray<sizeof(typename Slot::Value)>(data + 4, value);
        }
    });
}

// Whether the bytes of a full table's size from a vtable on have its structure.
template <class Record>
[[gnu::always_inline]] inline bool HasFullStructure(const uint8_t *vtable) {
    const uint8_t *const table = vtable + kVtableSize<Record>;
    if (!SameBytes<kFullHead<Record>.size()>(vtable, kFullHead<Record>.data()) ||
        !SameBytes<kFullWords<Record>.size()>(table + kFullLayout<Record>.words, kFullWords<Record>.data())) {
        return false;
    }
    return AllSlots<Record>([&]<class Slot, size_t kIndex>() __attribute__((always_inline)) {
        const uint8_t *const data = table + kFullData<Record, kIndex>;
        if constexpr (Slot::kKind == Kind::kScalar) {
            return true;
        } else if constexpr (Slot::kKind == Kind::kTable) {
            return HasFullStructure<typename Slot::Value>(data);
        } else if constexpr (Slot::kKind == Kind::kTableRun) {
            bool same = Load<uint32_t>(data) == Slot::kLength;
            for (uint32_t i = 0; same && i < Slot::kLength; ++i) {
                same = Load<uint32_t>(data + 4 + 4 * i) == FullElementWord<Slot>(i) &&
                       HasFullStructure<typename Slot::Element>(data + 4 + FullElementAt<Slot>(i));
            }
            return same;
        } else {
            return Load<uint32_t>(data) == Slot::kLength;
        }
    });
}

// Clears what lies between a member and the next or the record's end.
template <class Record, size_t kIndex>
[[gnu::always_inline]] inline void ClearGap(Record &record) {
    using Slot = SlotOf<Record, kIndex>;
    constexpr size_t kEnd = Slot::kOffset + sizeof(typename Slot::Value);
    if constexpr (kIndex + 1 < kSlotNum<Record>) {
        memset(reinterpret_cast<uint8_t *>(&record) + kEnd, 0, SlotOf<Record, kIndex + 1>::kFirst - kEnd);
    } else {
        memset(reinterpret_cast<uint8_t *>(&record) + kEnd, 0, sizeof(Record) - kEnd);
    }
}

// Fills a record, whatever it held, from a table that has the full structure; the gaps between members with 0.
template <class Record>
[[gnu::always_inline]] inline void ReadFull(const uint8_t *vtable, Record &record) {
    const uint8_t *const table = vtable + kVtableSize<Record>;
    EachSlot<Record>([&]<class Slot, size_t kIndex>() __attribute__((always_inline)) {
        constexpr uint32_t kRun = kScalarRuns<Record>[kIndex];
        auto *const value = reinterpret_cast<uint8_t *>(&record) + Slot::kOffset;
        const uint8_t *const data = table + kFullData<Record, kIndex>;
        if constexpr (Slot::kKind == Kind::kScalar) {
            CopyArray<kRun>(value, table + kFullField<Record, kIndex>);
        } else if constexpr (Slot::kKind == Kind::kTable) {
            ReadFull(data, Slot::Get(record));
        } else if constexpr (Slot::kKind == Kind::kTableRun) {
            for (uint32_t i = 0; i < Slot::kLength; ++i) {
                ReadFull(data + 4 + FullElementAt<Slot>(i), Slot::Get(record)[i]);
            }
        } else {
            CopyArray<sizeof(typename Slot::Value)>(value, data + 4);
        }
        ClearGap<Record, kIndex>(record);
    });
}

// Calls function(offset, width) for each scalar of a record and of those inside it, in the record's order.
template <class Record, class Function>
constexpr void EachScalar(Function function, size_t from = 0) {
    EachSlot<Record>([&]<class Slot, size_t>() {
        using Element = typename Slot::Element;
        if constexpr (Slot::kKind == Kind::kScalar) {
            function(from + Slot::kOffset, sizeof(Element));
        } else if constexpr (IsTableKind(Slot::kKind)) {
            for (size_t i = 0; i < (Slot::kKind == Kind::kTable ? 1 : Slot::kLength); ++i) {
                EachScalar<Element>(function, from + Slot::kOffset + sizeof(Element) * i);
            }
        }
    });
}

template <class Record>
constexpr size_t kScalarNum = [] {
    size_t num = 0;
    EachScalar<Record>([&](size_t, size_t) { ++num; });
    return num;
}();

// So few scalars are compared one by one.
constexpr size_t kFewScalars = 3;

// A piece of a record as wide as a vector register, in which scalars are compared with 0 all at once.
struct Piece {
    size_t at;
    std::array<std::array<uint8_t, 16>, 4> ones; // for widths of 1, 2, 4 and 8: a 1 in each byte of such scalars
};

template <class Record>
constexpr auto MakePieces() {
    std::array<Piece, kScalarNum<Record>> pieces{};
    size_t num = 0;
    EachScalar<Record>([&](size_t offset, size_t width) {
        if (num == 0 || offset + width > pieces[num - 1].at + 16) {
            const size_t last = sizeof(Record) < 16 ? 0 : sizeof(Record) - 16;
            pieces[num++].at = std::min(offset / alignof(Record) * alignof(Record), last);
        }
        Piece &piece = pieces[num - 1];
        for (size_t i = 0; i < width; ++i) {
            piece.ones[width == 8 ? 3 : width / 2][offset - piece.at + i] = 1;
        }
    });
    return std::pair(pieces, num);
}

template <class Record>
constexpr auto kPieces = MakePieces<Record>();

// Adds 1 to each byte of `zeros` that belongs to a scalar of this type whose value is 0.
template <class Scalar, class Record, size_t kPiece>
[[gnu::always_inline]] inline void AddZeros(Vector<uint8_t> &zeros, Vector<uint8_t> bytes) {
    constexpr auto &kOnes = kPieces<Record>.first[kPiece].ones[sizeof(Scalar) == 8 ? 3 : sizeof(Scalar) / 2];
    if constexpr (kOnes != std::array<uint8_t, 16>{}) {
        const auto isZero = reinterpret_cast<Vector<Scalar>>(bytes) == 0;
        zeros += reinterpret_cast<Vector<uint8_t>>(isZero) & LoadVector<16>(kOnes.data());
    }
}

// A 1 for each byte of a record's scalars that are 0, those of nested records too.
template <class Record>
[[gnu::always_inline]] inline Vector<uint8_t> Zeros(const Record &record) {
    static_assert(kPieces<Record>.second <= 127, "a byte is the sum of as many pieces");
    Vector<uint8_t> zeros{};
    [&]<size_t... kPiece>(std::index_sequence<kPiece...>) __attribute__((always_inline)) {
        const auto add = [&]<size_t kIndex>() __attribute__((always_inline)) {
            constexpr size_t kAt = kPieces<Record>.first[kIndex].at;
            const auto *const at = reinterpret_cast<const uint8_t *>(&record) + kAt;
            const auto piece = LoadVector<std::min<size_t>(sizeof(Record), 16)>(at);
            AddZeros<uint8_t, Record, kIndex>(zeros, piece);
            AddZeros<uint16_t, Record, kIndex>(zeros, piece);
            AddZeros<uint32_t, Record, kIndex>(zeros, piece);
            AddZeros<uint64_t, Record, kIndex>(zeros, piece);
        };
        (add.template operator()<kPiece>(), ...);
    }
    (std::make_index_sequence<kPieces<Record>.second>());
    return zeros;
}

// The bytes by which a record's regular form is shorter than its full form.
template <class Record>
[[gnu::always_inline]] inline uint32_t ZeroBytes(const Record &record) {
    if constexpr (kScalarNum<Record> <= kFewScalars) {
        uint32_t bytes = 0;
        EachSlot<Record>([&]<class Slot, size_t>() __attribute__((always_inline)) {
            if constexpr (Slot::kKind == Kind::kScalar) {
                bytes += Slot::Get(record) == 0 ? uint32_t{sizeof(typename Slot::Value)} : 0;
            } else if constexpr (Slot::kKind == Kind::kTable) {
                bytes += ZeroBytes(Slot::Get(record));
            } else if constexpr (Slot::kKind == Kind::kTableRun) {
                for (const auto &element : Slot::Get(record)) {
                    bytes += ZeroBytes(element);
                }
            }
        });
        return bytes;
    } else {
        return Sum(Zeros(record));
    }
}

template <class Record>
[[gnu::always_inline]] inline bool IsFull(const Record &record) {
    if constexpr (kScalarNum<Record> <= kFewScalars) {
        return ZeroBytes(record) == 0;
    } else {
        return IsZero(Zeros(record));
    }
}

} // namespace velto
