// Loads and stores of the wire's scalars. They stand at any address; the wire is little-endian, or the reverse of that
// for a unit in byte-swapped mode.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace velto {

static_assert(std::endian::native == std::endian::little, "the loads and stores below take the machine's own order");

template <class Scalar>
constexpr Scalar Reversed(Scalar value) {
    if constexpr (sizeof(Scalar) == 1) {
        return value;
    } else if constexpr (sizeof(Scalar) == 2) {
        return __builtin_bswap16(value);
    } else if constexpr (sizeof(Scalar) == 4) {
        return __builtin_bswap32(value);
    } else {
        return __builtin_bswap64(value);
    }
}

template <class Scalar, bool kSwapped = false>
inline Scalar Load(const uint8_t *at) {
    Scalar value;
    memcpy(&value, at, sizeof value);
    return kSwapped ? Reversed(value) : value;
}

template <class Scalar>
inline void Store(uint8_t *at, Scalar value) {
    memcpy(at, &value, sizeof value);
}

} // namespace velto
