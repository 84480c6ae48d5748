// The units of numbers in the JSON of host/describe/named.h.
#pragma once

#include "host/meaning/meaning.h"

namespace host::describe {

struct NamedUnit {
    const char *suffix; // of the key
    uint64_t scale;     // how many of them one of the member's own unit is
};

constexpr NamedUnit NamedUnitOf(meaning::Kind kind) {
    using enum meaning::Kind;
    switch (kind) {
    case kPermille:
        return {"_permille", 1};
    case kPercent:
        return {"_percent", 1};
    case kThousandths:
        return {"_thousandths", 1};
    case kKib:
        return {"_bytes", 1024};
    case kMib:
        return {"_bytes", 1024 * 1024};
    case kBytes:
        return {"_bytes", 1};
    case kNanoseconds:
        return {"_ns", 1};
    case kMicroseconds:
        return {"_us", 1};
    case kMilliseconds:
        return {"_us", 1000};
    case kSeconds:
        return {"_us", 1'000'000};
    case kMinutes:
        return {"_min", 1};
    case kHours:
        return {"_h", 1};
    default:
        return {"", 1};
    }
}

using meaning::IsTime;

inline bool IsText(meaning::Kind kind) {
    return kind >= meaning::Kind::kText && kind <= meaning::Kind::kBinary && !IsTime(kind);
}

} // namespace host::describe
