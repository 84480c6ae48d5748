// What methods, and the members of their records, mean: the schema of the sense, as a record is the schema of the
// bytes. The lists of the services are in this room, one file for each; checks of requests, tables, JSON with names,
// completion and the reference are made from them.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "host/meaning/choices.h"
#include "host/meaning/group.h"

namespace velto {
struct SlotName;
struct TypeShape;
} // namespace velto

namespace host::meaning {

// What a value is, and the unit of its number.
enum class Kind : uint8_t {
    // numbers that measure
    kPermille,
    kPercent,
    kThousandths,
    kKib,
    kMib,
    kBytes,
    kNanoseconds,
    kMicroseconds,
    kMilliseconds,
    kSeconds,
    kMinutes,
    kHours,
    // numbers that count or name
    kCount,
    kNumber, // of something that has one: a CPU, a node, a rule
    kSigned, // 32 bits, two's complement
    kPid,
    kTid,
    kUid,
    kAddress,
    kErrno,
    kLetter,   // a state of a task, as ASCII
    kUnixTime, // seconds since 1970
    kSwitch,   // 0 off, 1 on
    kChoice,   // one of named choices
    kFlags,    // a sum of named choices
    kUnused,   // nobody looks at it
    // texts
    kText, // a line
    kLines,
    kWord,      // the name of one of the choices
    kPattern,   // of names: "worker*"
    kLocalTime, // as text, or as Systime
    kGmtTime,   // as Systime
    kBinary,
    // other records
    kRecord,  // one
    kRecords, // a fixed number, or as many as there are
    kNumbers, // a vector of numbers of one kind; kTids of thread ids
    kTids,
};

constexpr bool IsTime(Kind kind) {
    return kind == Kind::kLocalTime || kind == Kind::kGmtTime;
}

// What is known of a value, and of a request's which are accepted. Functions return a changed copy, so that a list
// reads "Permille().Up(1000).Zero("detect none")".
struct Value {
    Kind kind = Kind::kCount;
    uint64_t least = 0;
    uint64_t most = UINT64_MAX;
    std::span<const Choice> choices;
    bool open = false;          // other values than the choices are accepted
    bool hasZero = false;       // 0, or an empty text, is accepted whatever the range, and need not be stated
    uint64_t zeroStandsFor = 0; // the value that 0 stands for, where it is one
    std::string_view zero;      // what 0 means, or an empty text, in words
    std::string_view notAbove;  // the member that bounds this one
    std::string_view notBelow;
    std::string_view matters; // the member on whose value it depends whether this one is looked at
    uint64_t mattersAt = 0;   // that value

    template <class Change>
    constexpr Value With(Change change) const {
        Value copy = *this;
        change(copy);
        return copy;
    }
    constexpr Value From(uint64_t value) const {
        return With([&](Value &to) { to.least = value; });
    }
    constexpr Value UpTo(uint64_t value) const {
        return With([&](Value &to) { to.most = value; });
    }
    // 0 has this meaning of its own, "all"; of a text, that it is empty.
    constexpr Value Zero(std::string_view meaning) const {
        return With([&](Value &to) { to.hasZero = true, to.zero = meaning; });
    }
    // 0 stands for this value.
    constexpr Value Default(uint64_t value) const {
        return With([&](Value &to) { to.hasZero = true, to.zeroStandsFor = value; });
    }
    // Values without a name here are accepted, too.
    constexpr Value Open() const {
        return With([&](Value &to) { to.open = true; });
    }
    constexpr Value NotAbove(std::string_view member) const {
        return With([&](Value &to) { to.notAbove = member; });
    }
    constexpr Value NotBelow(std::string_view member) const {
        return With([&](Value &to) { to.notBelow = member; });
    }
    // Looked at only while that member has that value.
    constexpr Value Where(std::string_view member, uint64_t value) const {
        return With([&](Value &to) { to.matters = member, to.mattersAt = value; });
    }

    // A member of a request that has no stated default has to be given by whoever states a request by names.
    constexpr bool Required() const { return !hasZero && matters.empty() && kind != Kind::kUnused; }
};

// A member of a record: its name on the wire, its name for people and programs, and what it means.
struct Member {
    std::string_view wire; // of a vector, its pointer's
    std::string_view name; // lower case, words joined by "-"
    Value value;
    std::string_view sentence;
};

// A record as one method uses it. Its arrays run over its slots.
struct Record {
    const char *type; // without the prefix Tarn_sys_diag_
    const velto::TypeShape *shape;
    const velto::SlotName *slots;
    std::span<const Member> members;
    std::span<const Record *const> inside; // of slots of tables, the element's record; else null
};

enum class Duration : uint8_t { kShort, kLong };

struct Method {
    const char *service;
    const char *name;
    Group group;
    Duration duration; // kLong: it may take longer than a caller waits by default
    std::string_view sentence;
    std::string_view example; // members of a request, "process=1 interval=2s"; empty for one without members
    const Record *request;
    const Record *response; // null for a method without reply
};

struct Service {
    const char *name;
    std::string_view sentence;
    std::span<const Method *const> methods; // in the order of their interface indices
};

// The lists. A program that links one of them carries no other.
extern const Service kTarnd, kTarndAgent, kAgent, kMaster;

} // namespace host::meaning
