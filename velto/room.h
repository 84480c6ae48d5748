// What a codec trades, speed for room. A codec's frame, what all do around their fields, is compiled into each codec or
// is one function that all call: the first is faster, the second smaller. Devices have 32 bits and little room.
#pragma once

#include <cstdint>

#if UINTPTR_MAX > UINT32_MAX
#define VELTO_FRAME [[gnu::always_inline]] inline
#else
#define VELTO_FRAME [[gnu::noinline]]
#endif

namespace velto {

constexpr bool kHasRoom = UINTPTR_MAX > UINT32_MAX;

// A condition that is nearly always true. Code laid out for that is faster and larger.
constexpr bool Expected(bool condition) {
    return kHasRoom ? __builtin_expect(condition, true) : condition;
}

} // namespace velto
