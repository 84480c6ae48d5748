// What codecs, proxies and wrappers trade, speed for room. The frame of one, what all of its kind do, is compiled into
// each or is one function that all call: the first is faster, the second smaller. A type's straight code is compiled in
// or is a function of its own likewise. Devices have 32 bits and little room.
#pragma once

#include <cstdint>

#if UINTPTR_MAX > UINT32_MAX
#define VELTO_FRAME [[gnu::always_inline]] inline
#define VELTO_STRAIGHT [[gnu::always_inline]] inline
#else
#define VELTO_FRAME [[gnu::noinline]] inline
#define VELTO_STRAIGHT static
#endif

namespace velto {

// Machines with 64-bit pointers have the room.
constexpr bool kPrefersSpeed = UINTPTR_MAX > UINT32_MAX;

// A condition that is nearly always true. Code laid out for that is faster and larger.
constexpr bool Expected(bool condition) {
    return kPrefersSpeed ? __builtin_expect(condition, true) : condition;
}

} // namespace velto
