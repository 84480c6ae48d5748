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

// Copies an array of a size that the compiler knows. For sizes such as 50 gcc would take x86's string instructions,
// whose start alone costs more than a whole small table; vector registers, the last overlapping, do it in a few moves.
template <size_t kSize>
inline void CopyArray(void *to, const void *from) {
#ifdef __SSE2__
    if constexpr (kSize >= 16 && kSize <= 128) {
        auto *const out = static_cast<uint8_t *>(to);
        const auto *const in = static_cast<const uint8_t *>(from);
        for (size_t i = 0; i + 16 <= kSize; i += 16) {
            memcpy(out + i, in + i, 16);
        }
        memcpy(out + kSize - 16, in + kSize - 16, 16);
        return;
    }
#endif
    memcpy(to, from, kSize);
}

} // namespace velto
