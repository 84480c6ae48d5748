// How often the attacks of a test are tried: TARN_ATTACKS, or less.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>

namespace kit {

inline uint64_t Rounds(uint64_t otherwise) {
    const char *const given = getenv("TARN_ATTACKS");
    return given == nullptr ? otherwise : std::max<uint64_t>(1, strtoull(given, nullptr, 10));
}

} // namespace kit
