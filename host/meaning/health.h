// Levels of health together.
#pragma once

#include <algorithm>
#include <cstdint>

#include "host/meaning/choices.h"

namespace host::meaning {

// Of two levels the worse; one that is unknown says nothing.
inline uint32_t WorseHealth(uint32_t one, uint32_t other) {
    const bool bothKnown = one != system_health_level::kUnknown && other != system_health_level::kUnknown;
    return bothKnown ? std::max(one, other) : std::min(one, other);
}

} // namespace host::meaning
