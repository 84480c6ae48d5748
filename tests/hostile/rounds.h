// How often the attacks of a test are tried: TARN_ATTACKS, or less; those that fill a disk no more often than they
// need.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>

namespace kit {

inline uint64_t Rounds(uint64_t otherwise, uint64_t most = UINT64_MAX) {
    const char *const given = getenv("TARN_ATTACKS");
    return given == nullptr ? otherwise : std::clamp<uint64_t>(strtoull(given, nullptr, 10), 1, most);
}

} // namespace kit
