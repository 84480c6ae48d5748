// What the members mean whose names don't say it, in the words of a table's head. host/values/daemon.h and
// host/values/agent.h are where it is defined; a member that is not known here is shown as it is.
#pragma once

#include "host/describe/json.h"

namespace ctl {

enum class Unit {
    kNone,
    kPid,
    kPermille,
    kPercent,
    kSeconds,
    kMilliseconds,
    kMicroseconds,
    kKib,
    kBytes,
    kLetter,
    kAddress,
    kSigned,
    kErrno,
};

struct Meaning {
    const char *label; // null: the member's name says it
    Unit unit;
};

Meaning MeaningOf(const host::describe::Type &type, const host::describe::Slot &slot);

// A number with its unit; a process or a thread with its name, a letter as such, an error in words.
std::string TextWithUnit(uint64_t value, Unit unit);

// "permille", or nothing for a plain number.
const char *NameOf(Unit unit);

struct MemberMeaning {
    const char *type, *member;
    Meaning meaning;
};
const std::vector<MemberMeaning> &KnownMeanings();

} // namespace ctl
