// For the files that list meanings: RECORD, VARIANT, METHOD, and the proofs that a list is whole. Include it first: it
// makes the types describe themselves to the compiler.
#pragma once

#define VELTO_ON_TABLE(type) VELTO_DEFINE_SHAPE(type, inline)
#include "velto/describe.h"
#include "velto/shape.h"

#include <algorithm>
#include <array>

#include "host/meaning/methods.h"

namespace host::meaning {

// ---- Values, as a list writes them ----

constexpr Value Of(Kind kind) {
    Value value;
    value.kind = kind;
    return value;
}

constexpr Value Permille() {
    return Of(Kind::kPermille);
}
constexpr Value Percent() {
    return Of(Kind::kPercent);
}
constexpr Value Thousandths() {
    return Of(Kind::kThousandths);
}
constexpr Value Kib() {
    return Of(Kind::kKib);
}
constexpr Value Mib() {
    return Of(Kind::kMib);
}
constexpr Value Bytes() {
    return Of(Kind::kBytes);
}
constexpr Value Nanoseconds() {
    return Of(Kind::kNanoseconds);
}
constexpr Value Microseconds() {
    return Of(Kind::kMicroseconds);
}
constexpr Value Milliseconds() {
    return Of(Kind::kMilliseconds);
}
constexpr Value Seconds() {
    return Of(Kind::kSeconds);
}
constexpr Value Minutes() {
    return Of(Kind::kMinutes);
}
constexpr Value Hours() {
    return Of(Kind::kHours);
}
constexpr Value Count() {
    return Of(Kind::kCount);
}
constexpr Value Number() {
    return Of(Kind::kNumber);
}
constexpr Value Signed() {
    return Of(Kind::kSigned);
}
constexpr Value Pid() {
    return Of(Kind::kPid);
}
constexpr Value Tid() {
    return Of(Kind::kTid);
}
constexpr Value Uid() {
    return Of(Kind::kUid);
}
constexpr Value Address() {
    return Of(Kind::kAddress);
}
constexpr Value Errno() {
    return Of(Kind::kErrno);
}
constexpr Value Letter() {
    return Of(Kind::kLetter);
}
constexpr Value UnixTime() {
    return Of(Kind::kUnixTime);
}
constexpr Value Switch() {
    return Of(Kind::kSwitch).UpTo(1);
}
constexpr Value Unused() {
    return Of(Kind::kUnused);
}
constexpr Value Text() {
    return Of(Kind::kText);
}
constexpr Value Lines() {
    return Of(Kind::kLines);
}
constexpr Value Pattern() {
    return Of(Kind::kPattern);
}
constexpr Value LocalTime() {
    return Of(Kind::kLocalTime);
}
constexpr Value GmtTime() {
    return Of(Kind::kGmtTime);
}
constexpr Value Binary() {
    return Of(Kind::kBinary);
}
constexpr Value OneRecord() {
    return Of(Kind::kRecord);
}
constexpr Value Records() {
    return Of(Kind::kRecords);
}
constexpr Value Numbers() {
    return Of(Kind::kNumbers);
}
constexpr Value Tids() {
    return Of(Kind::kTids);
}

// One of these.
constexpr Value OneOf(std::span<const Choice> choices) {
    Value value = Of(Kind::kChoice);
    value.choices = choices;
    return value;
}

// A text that is the name of one of these.
constexpr Value Words(std::span<const Choice> choices) {
    Value value = Of(Kind::kWord);
    value.choices = choices;
    return value;
}

// A sum of these, 0 for none of them.
constexpr Value SumOf(std::span<const Choice> choices) {
    Value value = Of(Kind::kFlags);
    value.choices = choices;
    return value;
}

// ---- What a list states, and how its proofs find it ----

struct MethodText {
    Group group{};
    std::string_view sentence;
    std::string_view example;
    Duration duration = Duration::kShort;
};

template <class Tag>
constexpr MethodText kTextOf{};

template <class Record>
constexpr std::array<Member, 0> kMembers{};

// A record's members as a method means them, where that is not what others mean.
template <class Tag, class Record>
constexpr const auto &kMembersIn = kMembers<Record>;

template <class Record, size_t kNum>
constexpr bool AreMembers(const Member (&changed)[kNum]) {
    return std::ranges::all_of(
        changed, [](const Member &one) { return std::ranges::count(kMembers<Record>, one.wire, &Member::wire) == 1; });
}

// The same members, but for those that are stated anew.
template <class Record, size_t kNum>
constexpr auto Vary(const Member (&changed)[kNum]) {
    auto members = kMembers<Record>;
    for (Member &member : members) {
        const Member *const anew = std::ranges::find(changed, member.wire, &Member::wire);
        member = anew == std::end(changed) ? member : *anew;
    }
    return members;
}

// ---- Proofs ----

constexpr bool IsName(std::string_view name) {
    const bool plain = std::ranges::all_of(name, [](char letter) {
        return (letter >= 'a' && letter <= 'z') || (letter >= '0' && letter <= '9') || letter == '-';
    });
    return plain && !name.empty() && name.front() >= 'a' && name.front() <= 'z' && name.back() != '-';
}

constexpr bool IsSentence(std::string_view text) {
    return text.size() > 1 && text.back() == '.' && (text.front() < 'a' || text.front() > 'z');
}

constexpr bool AcceptsNumber(const Value &value, uint64_t number) {
    return value.least <= number && number <= value.most;
}

constexpr bool IsSound(const Value &value) {
    const bool choosy = value.kind == Kind::kChoice || value.kind == Kind::kFlags || value.kind == Kind::kWord;
    return value.least <= value.most && choosy == !value.choices.empty() &&
           (value.zeroStandsFor == 0 || AcceptsNumber(value, value.zeroStandsFor)) &&
           std::ranges::all_of(value.choices, [](const Choice &one) { return IsName(one.name); });
}

// The largest number that a slot of a scalar can hold.
template <class Slot>
constexpr uint64_t kMostOf = UINT64_MAX >> (64 - 8 * std::min<size_t>(8, sizeof(typename Slot::Value)));

template <class Slot>
constexpr bool FitsNumber(const Value &value) {
    const bool choicesFit =
        std::ranges::all_of(value.choices, [](const Choice &one) { return one.value <= kMostOf<Slot>; });
    return value.kind < Kind::kText && (value.most == UINT64_MAX || value.most <= kMostOf<Slot>)&&choicesFit;
}

template <class Slot>
constexpr bool FitsText(const Value &value) {
    const bool wordsFit = std::ranges::all_of(value.choices, [](const Choice &one) {
        return Slot::kKind != velto::Kind::kBytes || one.name.size() <= Slot::kLength;
    });
    return value.kind >= Kind::kText && wordsFit;
}

// Whether a value of this kind can stand in a slot.
template <class Slot>
constexpr bool Fits(const Value &value) {
    using enum Kind;
    constexpr bool kIsTime = requires {
        Slot::Element::usYear;
    };
    switch (Slot::kKind) {
    case velto::Kind::kScalar:
        return FitsNumber<Slot>(value);
    case velto::Kind::kString:
        return value.kind <= kLocalTime && FitsText<Slot>(value);
    case velto::Kind::kBytes:
    case velto::Kind::kByteVector:
        return value.kind <= kBinary && FitsText<Slot>(value);
    case velto::Kind::kTable:
        return value.kind == kRecord || (kIsTime && (value.kind == kLocalTime || value.kind == kGmtTime));
    case velto::Kind::kTableRun:
    case velto::Kind::kTableVector:
        return value.kind == kRecords;
    default:
        return value.kind == kNumbers || value.kind == kTids ||
               (value.kind < kText && Slot::kKind == velto::Kind::kArray64);
    }
}

template <class Record>
constexpr bool kIsWhole = kMembers<Record>.size() == velto::kSlotNum<Record>;

template <class Record, size_t kNum>
constexpr bool AreInOrder(const std::array<Member, kNum> &members) {
    return velto::AllSlots<Record>([&]<class Slot, size_t kIndex>() {
        return members[kIndex].wire == velto::Table<Record>::kSlotNames[kIndex].member;
    });
}

template <class Record, size_t kNum>
constexpr bool Fit(const std::array<Member, kNum> &members) {
    return velto::AllSlots<Record>([&]<class Slot, size_t kIndex>() { return Fits<Slot>(members[kIndex].value); });
}

template <size_t kNum>
constexpr bool AreSound(const std::array<Member, kNum> &members) {
    return std::ranges::all_of(
        members, [](const Member &one) { return IsName(one.name) && IsSentence(one.sentence) && IsSound(one.value); });
}

template <size_t kNum>
constexpr bool HaveNamesOfTheirOwn(const std::array<Member, kNum> &members) {
    return std::ranges::all_of(members, [&](const Member &one) {
        return std::ranges::count(members, one.name, &Member::name) == 1 &&
               std::ranges::count(members, one.name, &Member::wire) == 0;
    });
}

// A bound, or what a condition depends on, is a number of the same record.
template <size_t kNum>
constexpr bool ReferToNumbers(const std::array<Member, kNum> &members) {
    const auto isNumber = [&](std::string_view wire) {
        const auto found = std::ranges::find(members, wire, &Member::wire);
        return wire.empty() || (found != members.end() && found->value.kind < Kind::kText);
    };
    return std::ranges::all_of(members, [&](const Member &one) {
        return isNumber(one.value.notAbove) && isNumber(one.value.notBelow) && isNumber(one.value.matters);
    });
}

template <size_t kNum>
constexpr bool ConditionsEnd(const std::array<Member, kNum> &members) {
    const auto ends = [&](const Member &one) {
        const Member *on = &one;
        for (size_t steps = 0; steps < kNum && !on->value.matters.empty(); ++steps) {
            on = &*std::ranges::find(members, on->value.matters, &Member::wire);
        }
        return on->value.matters.empty();
    };
    return !ReferToNumbers(members) || std::ranges::all_of(members, ends);
}

// ---- The tables made of it ----

template <class Tag, class Element>
constexpr const Record *RecordOf();

template <class Tag, class Type>
constexpr auto kInside = [] {
    std::array<const Record *, velto::kSlotNum<Type>> inside{};
    velto::EachSlot<Type>([&]<class Slot, size_t kIndex>() {
        if constexpr (velto::IsTableKind(Slot::kKind)) {
            inside[kIndex] = RecordOf<Tag, typename Slot::Element>();
        }
    });
    return inside;
}();

template <class Tag, class Type>
constexpr Record kRecord{velto::Table<Type>::kName, &velto::Shape<Type>::kType, velto::Table<Type>::kSlotNames,
                         kMembersIn<Tag, Type>, kInside<Tag, Type>};

template <class Tag, class Type>
constexpr const Record *RecordOf() {
    static_assert(kIsWhole<Type>, "a record that a method uses has members without a meaning: give it a RECORD");
    return &kRecord<Tag, Type>;
}

template <class Tag, class Request, class Response>
constexpr MethodOf<Request, Response> MakeMethod(const char *service, const char *name) {
    const MethodText &text = kTextOf<Tag>;
    const Record *response = nullptr;
    if constexpr (!std::is_same_v<Response, NoRecord>) {
        response = RecordOf<Tag, Response>();
    }
    return {
        {service, name, text.group, text.duration, text.sentence, text.example, RecordOf<Tag, Request>(), response}};
}

} // namespace host::meaning

// RECORD(type, {"uiValue1", "begins-at", Permille().UpTo(1000), "One sentence."}, ...): the members of
// Tarn_sys_diag_<type>, in slot order.
#define RECORD(type, ...)                                                                                              \
    template <>                                                                                                        \
    inline constexpr auto kMembers<Tarn_sys_diag_##type> = std::to_array<Member>({__VA_ARGS__});                       \
    static_assert(kIsWhole<Tarn_sys_diag_##type>,                                                                      \
                  "RECORD(" #type "): a member has no meaning, or a meaning no member");                               \
    PROVE_MEMBERS("RECORD(" #type ")", Tarn_sys_diag_##type, kMembers<Tarn_sys_diag_##type>)

// VARIANT(method, type, {...}): members that this method means differently.
#define VARIANT(method, type, ...)                                                                                     \
    static_assert(AreMembers<Tarn_sys_diag_##type>({__VA_ARGS__}),                                                     \
                  "VARIANT(" #method ", " #type "): a meaning has no member");                                         \
    inline constexpr auto k##method##_##type = Vary<Tarn_sys_diag_##type>({__VA_ARGS__});                              \
    template <>                                                                                                        \
    inline constexpr const auto &kMembersIn<struct method##_, Tarn_sys_diag_##type> = k##method##_##type;              \
    PROVE_MEMBERS("VARIANT(" #method ", " #type ")", Tarn_sys_diag_##type, k##method##_##type)

#define PROVE_MEMBERS(what, type, members)                                                                             \
    static_assert(AreInOrder<type>(members), what ": the meanings are not the members, in their order");               \
    static_assert(Fit<type>(members), what ": a member can't hold a value of its kind or range");                      \
    static_assert(AreSound(members), what ": a name, a sentence, a range or a default is not as it should be");        \
    static_assert(HaveNamesOfTheirOwn(members), what ": two members have one name");                                   \
    static_assert(ReferToNumbers(members), what ": a bound or a condition is no number of the record");                \
    static_assert(ConditionsEnd(members), what ": a condition depends on itself");

// METHOD(method, group, "One sentence.", "example=1"): with Duration::kLong behind it where it may take long.
#define METHOD(method, ...)                                                                                            \
    template <>                                                                                                        \
    inline constexpr MethodText kTextOf<struct method##_>{__VA_ARGS__};                                                \
    static_assert(IsSentence(kTextOf<struct method##_>.sentence), "METHOD(" #method "): expected a sentence");

// Defines a method of that service. A service's own are all defined by host/meaning/define_service.h.
#define DEFINE_MEANING(service, method, request, response)                                                             \
    namespace host::meaning {                                                                                          \
    struct method##_;                                                                                                  \
    }                                                                                                                  \
    static_assert(!host::meaning::kTextOf<host::meaning::method##_>.sentence.empty(),                                  \
                  #method ": a method without a meaning: give it a METHOD");                                           \
    constexpr host::meaning::MethodOf<request, response> host::methods::method =                                       \
        host::meaning::MakeMethod<host::meaning::method##_, request, response>(service, #method);
