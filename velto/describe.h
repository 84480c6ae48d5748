// Makes VELTO_TABLE describe its type to the compiler: members as pointers to members, in slot order, with the wire
// kind that follows from each member's type. Include it before the headers of types/. It also refuses a list that does
// not match its record, in words that name the type.
#pragma once

#ifdef TARN_TYPES_TABLE_H
#error "include velto/describe.h before the headers of types/: their tables have already been read as plain records"
#endif
#define VELTO_DESCRIBE
#include "tarn_sysdiag/types/table.h"

#include <cstddef>
#include <cstdint>
#include <tuple>
#include <type_traits>
#include <utility>

#include "velto/room.h"

namespace velto {

// The description of Tarn_sys_diag_<Type>, defined by VELTO_TABLE.
template <class Record>
struct Table;

template <class T>
concept Described = requires {
    Table<T>::kName;
};

enum class Kind : uint8_t {
    kUnsupported,
    kScalar,      // 1, 2, 4 or 8 bytes in the table
    kString,      // char *
    kBytes,       // fixed array of bytes
    kArray64,     // fixed array of 64-bit elements
    kTable,       // nested table
    kTableRun,    // fixed run of tables
    kByteVector,  // count and pointer
    kVector32,    // count and pointer
    kTableVector, // count and pointer
};

template <class Value>
constexpr bool kIsScalar = std::is_same_v<Value, uint8_t> || std::is_same_v<Value, uint16_t> ||
                           std::is_same_v<Value, uint32_t> || std::is_same_v<Value, uint64_t>;

template <class Value>
constexpr bool kIsByte = std::is_same_v<Value, char> || std::is_same_v<Value, uint8_t>;

// The kind of a slot of one member.
template <class Value>
constexpr Kind MemberKind() {
    using Element = std::remove_extent_t<Value>;
    if constexpr (kIsScalar<Value>) {
        return Kind::kScalar;
    } else if constexpr (std::is_same_v<Value, char *>) {
        return Kind::kString;
    } else if constexpr (std::is_bounded_array_v<Value> && kIsByte<Element>) {
        return Kind::kBytes;
    } else if constexpr (std::is_bounded_array_v<Value> && std::is_same_v<Element, uint64_t>) {
        return Kind::kArray64;
    } else if constexpr (std::is_bounded_array_v<Value> && Described<Element>) {
        return Kind::kTableRun;
    } else if constexpr (Described<Value>) {
        return Kind::kTable;
    } else {
        return Kind::kUnsupported;
    }
}

// The kind of a slot of two members, a count and a pointer.
template <class Count, class Pointer>
constexpr Kind VectorKind() {
    using Element = std::remove_pointer_t<Pointer>;
    if constexpr (!std::is_same_v<Count, uint32_t> || !std::is_pointer_v<Pointer>) {
        return Kind::kUnsupported;
    } else if constexpr (std::is_same_v<Element, uint8_t>) {
        return Kind::kByteVector;
    } else if constexpr (std::is_same_v<Element, uint32_t>) {
        return Kind::kVector32;
    } else if constexpr (Described<Element>) {
        return Kind::kTableVector;
    } else {
        return Kind::kUnsupported;
    }
}

template <class>
struct MemberOf;
template <class Record, class Member>
struct MemberOf<Member Record::*> {
    using Type = Member;
};

// A slot of one member.
template <auto kMember, size_t kMemberOffset>
struct MemberSlot {
    using Value = typename MemberOf<decltype(kMember)>::Type;
    using Element = std::remove_extent_t<Value>; // of arrays and runs; else Value
    static constexpr Kind kKind = MemberKind<Value>();
    static constexpr size_t kOffset = kMemberOffset;
    static constexpr size_t kFirst = kMemberOffset, kLast = kMemberOffset;
    static constexpr uint32_t kLength = std::extent_v<Value>; // declared length of arrays and runs; else 0

    template <class Record>
    static auto &Get(Record &record) {
        return record.*kMember;
    }
};

// A slot of two members, a count and a pointer to as many elements.
template <auto kCountMember, size_t kCountMemberOffset, auto kMember, size_t kMemberOffset>
struct VectorSlot {
    using Value = typename MemberOf<decltype(kMember)>::Type;
    using Element = std::remove_pointer_t<Value>;
    static constexpr Kind kKind = VectorKind<typename MemberOf<decltype(kCountMember)>::Type, Value>();
    static constexpr size_t kOffset = kMemberOffset;
    static constexpr size_t kCountOffset = kCountMemberOffset;
    static constexpr size_t kFirst = kCountMemberOffset, kLast = kMemberOffset;
    static constexpr uint32_t kLength = 0;

    template <class Record>
    static auto &Get(Record &record) {
        return record.*kMember;
    }
    template <class Record>
    static auto &Count(Record &record) {
        return record.*kCountMember;
    }
};

template <class... Slot>
struct SlotList {
    using Tuple = std::tuple<Slot...>;
    static constexpr size_t kNum = sizeof...(Slot);
    static constexpr bool kSupported = ((Slot::kKind != Kind::kUnsupported) && ...);

    static constexpr bool Ascending() {
        const size_t offsets[] = {Slot::kFirst..., Slot::kLast..., 0};
        bool ascending = true;
        for (size_t i = 0; i < kNum; ++i) {
            ascending = ascending && offsets[i] <= offsets[kNum + i];
            ascending = ascending && (i == 0 || offsets[kNum + i - 1] < offsets[i]);
        }
        return ascending;
    }
};

// What a slot's members are called; count is null for a slot of one member.
struct SlotName {
    const char *member;
    const char *count;
};

template <class Record>
constexpr size_t kSlotNum = Table<Record>::Slots::kNum;

template <class Record, size_t kIndex>
using SlotOf = std::tuple_element_t<kIndex, typename Table<Record>::Slots::Tuple>;

// Calls function.operator()<Slot, index>() for each slot in order, until one returns false.
template <class Record, class Function>
constexpr bool AllSlots(Function function) {
    return [&]<size_t... kIndex>(std::index_sequence<kIndex...>) {
        return (Expected(function.template operator()<SlotOf<Record, kIndex>, kIndex>()) && ...);
    }
    (std::make_index_sequence<kSlotNum<Record>>());
}

template <class Record, class Function>
constexpr void EachSlot(Function function) {
    [&]<size_t... kIndex>(std::index_sequence<kIndex...>) {
        (function.template operator()<SlotOf<Record, kIndex>, kIndex>(), ...);
    }
    (std::make_index_sequence<kSlotNum<Record>>());
}

// The size that interfaces pass for a record: C++ gives a record without members one byte, the interface none.
template <class Record>
constexpr uint32_t kNativeSize = kSlotNum<Record> == 0 ? 0 : uint32_t{sizeof(Record)};

constexpr bool IsTableKind(Kind kind) {
    return kind == Kind::kTable || kind == Kind::kTableRun || kind == Kind::kTableVector;
}

constexpr bool IsVectorKind(Kind kind) {
    return kind == Kind::kByteVector || kind == Kind::kVector32 || kind == Kind::kTableVector;
}

// Whether decoding a record allocates: whether it, or a record inside it, has a string or a vector.
template <class Value>
constexpr bool kOwns = false;
template <Described Record>
constexpr bool kOwns<Record> = !AllSlots<Record>([]<class Slot, size_t>() {
    return Slot::kKind != Kind::kString && !IsVectorKind(Slot::kKind) && !kOwns<typename Slot::Element>;
});

// True for the one type whose release hands its pointer on without testing it.
template <class Record>
constexpr bool kReleasesNull = false;

// 32-bit FNV-1a of the type's full name.
constexpr uint32_t TypeHash(const char *name) {
    uint32_t hash = 0x811C9DC5;
    for (const char *text : {"Tarn_sys_diag.", name}) {
        for (; *text != 0; ++text) {
            hash = (hash ^ static_cast<uint8_t>(*text)) * 0x01000193;
        }
    }
    return hash;
}

template <class Record>
constexpr uint32_t kTypeHash = TypeHash(Table<Record>::kName);

} // namespace velto

// Preprocessor: apply a macro to each argument, with commas between.
#define VELTO_PARENS ()
#define VELTO_RESCAN(...) VELTO_RESCAN3(VELTO_RESCAN3(VELTO_RESCAN3(VELTO_RESCAN3(__VA_ARGS__))))
#define VELTO_RESCAN3(...) VELTO_RESCAN2(VELTO_RESCAN2(VELTO_RESCAN2(VELTO_RESCAN2(__VA_ARGS__))))
#define VELTO_RESCAN2(...) VELTO_RESCAN1(VELTO_RESCAN1(VELTO_RESCAN1(VELTO_RESCAN1(__VA_ARGS__))))
#define VELTO_RESCAN1(...) __VA_ARGS__
#define VELTO_EACH(macro, ...) __VA_OPT__(VELTO_RESCAN(VELTO_EACH_STEP(macro, __VA_ARGS__)))
#define VELTO_EACH_STEP(macro, first, ...) macro(first) __VA_OPT__(, VELTO_EACH_AGAIN VELTO_PARENS(macro, __VA_ARGS__))
#define VELTO_EACH_AGAIN() VELTO_EACH_STEP

// A vector's two members arrive in parentheses, which tells them from a member of its own slot.
#define VELTO_VECTOR(count, pointer) (count, pointer)
#define VELTO_CAT(left, right) VELTO_CAT_(left, right)
#define VELTO_CAT_(left, right) left##right
#define VELTO_SECOND(...) VELTO_SECOND_(__VA_ARGS__)
#define VELTO_SECOND_(first, second, ...) second
#define VELTO_PROBE(...) ~, 2
#define VELTO_ARITY(slot) VELTO_SECOND(VELTO_PROBE slot, 1, ~)

#define VELTO_SLOT(slot) VELTO_CAT(VELTO_SLOT_, VELTO_ARITY(slot))(slot)
#define VELTO_SLOT_1(member) ::velto::MemberSlot<&Record::member, offsetof(Record, member)>
#define VELTO_SLOT_2(pair) VELTO_SLOT_OF pair
#define VELTO_SLOT_OF(count, member)                                                                                   \
    ::velto::VectorSlot<&Record::count, offsetof(Record, count), &Record::member, offsetof(Record, member)>

#define VELTO_NAME(slot) VELTO_CAT(VELTO_NAME_, VELTO_ARITY(slot))(slot)
#define VELTO_NAME_1(member)                                                                                           \
    ::velto::SlotName {                                                                                                \
#member, nullptr                                                                                               \
    }
#define VELTO_NAME_2(pair) VELTO_NAME_OF pair
#define VELTO_NAME_OF(count, member)                                                                                   \
    ::velto::SlotName {                                                                                                \
#member, #count                                                                                                \
    }

#define VELTO_BRACES(slot) VELTO_CAT(VELTO_BRACES_, VELTO_ARITY(slot))
#define VELTO_BRACES_1                                                                                                 \
    {}
#define VELTO_BRACES_2                                                                                                 \
    {}, {}

// The description and its proofs. A record takes no more initialisers than it has members: one for each listed member
// and one more must not fit, or a member was forgotten.
#define VELTO_TABLE(type, ...)                                                                                         \
    template <>                                                                                                        \
    struct velto::Table<Tarn_sys_diag_##type> {                                                                        \
        using Record = Tarn_sys_diag_##type;                                                                           \
        using Slots = ::velto::SlotList<VELTO_EACH(VELTO_SLOT, __VA_ARGS__)>;                                          \
        static constexpr char kName[] = #type;                                                                         \
        static constexpr char kUnpackNonRoot[] = "Tarn_sys_diag_" #type "_unpack_non_root";                            \
        static constexpr ::velto::SlotName kSlotNames[] = {VELTO_EACH(VELTO_NAME, __VA_ARGS__) __VA_OPT__(, ){}};      \
        template <class Any>                                                                                           \
        static constexpr bool kHasMore = requires {                                                                    \
            Any{VELTO_EACH(VELTO_BRACES, __VA_ARGS__) __VA_OPT__(, ){}};                                               \
        };                                                                                                             \
    };                                                                                                                 \
    static_assert(::velto::Table<Tarn_sys_diag_##type>::Slots::kSupported,                                             \
                  "VELTO_TABLE(" #type "): a member is of a kind that the format lacks");                              \
    static_assert(::velto::Table<Tarn_sys_diag_##type>::Slots::Ascending(),                                            \
                  "VELTO_TABLE(" #type "): a member is listed twice, or not in the record's order");                   \
    static_assert(!::velto::Table<Tarn_sys_diag_##type>::kHasMore<Tarn_sys_diag_##type>,                               \
                  "VELTO_TABLE(" #type "): a member of the record is not listed");                                     \
    VELTO_ON_TABLE(type)

#define VELTO_RELEASES_NULL(type)                                                                                      \
    template <>                                                                                                        \
    inline constexpr bool velto::kReleasesNull<Tarn_sys_diag_##type> = true;

// What else each table's line makes: a unit defines it before it includes the headers of types/.
#ifndef VELTO_ON_TABLE
#define VELTO_ON_TABLE(type)
#endif
