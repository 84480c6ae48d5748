// Whether a record's regular form is the full form, and by how much it is shorter where it is not.
#pragma once

#include <algorithm>
#include <array>

#include "velto/bytes.h"
#include "velto/describe.h"

namespace velto {

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
