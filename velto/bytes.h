// Loads and stores of the wire's scalars. They stand at any address; the wire is little-endian, or the reverse of that
// for a unit in byte-swapped mode.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <tuple>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

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

// 16 bytes, as the compilers' own vectors: registers where the machine has them.
template <class Scalar>
struct VectorOf {
    using Type __attribute__((vector_size(16))) = Scalar;
};
template <class Scalar>
using Vector = typename VectorOf<Scalar>::Type;

// The next kSize bytes, 8 at most, as a number.
template <size_t kSize>
[[gnu::always_inline]] inline uint64_t LoadWord(const uint8_t *at) {
    constexpr size_t kFirst = std::bit_floor(std::min<size_t>(kSize, 8));
    using Scalar = std::tuple_element_t<std::countr_zero(kFirst), std::tuple<uint8_t, uint16_t, uint32_t, uint64_t>>;
    uint64_t word = Load<Scalar>(at);
    if constexpr (kSize > kFirst) {
        word |= LoadWord<kSize - kFirst>(at + kFirst) << 8 * kFirst;
    }
    return word;
}

// The next kSize bytes, 16 at most, and zeros. Never through memory in pieces, for which the load would wait.
template <size_t kSize>
[[gnu::always_inline]] inline Vector<uint8_t> LoadVector(const uint8_t *at) {
    if constexpr (kSize == 16) {
        Vector<uint8_t> bytes;
        memcpy(&bytes, at, 16);
        return bytes;
    } else {
        Vector<uint64_t> words = {LoadWord<std::min<size_t>(kSize, 8)>(at), 0};
        if constexpr (kSize > 8) {
            words[1] = LoadWord<kSize - 8>(at + 8);
        }
        return reinterpret_cast<Vector<uint8_t>>(words);
    }
}

[[gnu::always_inline]] inline bool IsZero(Vector<uint8_t> bytes) {
    const auto words = reinterpret_cast<Vector<uint64_t>>(bytes);
    return (words[0] | words[1]) == 0;
}

// The sum of bytes of at most 127.
[[gnu::always_inline]] inline uint32_t Sum(Vector<uint8_t> bytes) {
#ifdef __SSE2__
    const auto sums = reinterpret_cast<Vector<uint32_t>>(_mm_sad_epu8(reinterpret_cast<__m128i>(bytes), __m128i{}));
    return sums[0] + sums[2];
#else
    const auto words = reinterpret_cast<Vector<uint64_t>>(bytes);
    const uint64_t pairs = words[0] + words[1];
    constexpr uint64_t kEven = 0x00FF00FF00FF00FF;
    return static_cast<uint32_t>(((pairs & kEven) + (pairs >> 8 & kEven)) * 0x0001000100010001 >> 48);
#endif
}

// Whether two arrays of a size that the compiler knows are equal. Empty ones need not have addresses.
template <size_t kSize>
[[gnu::always_inline]] inline bool SameBytes(const uint8_t *left, const uint8_t *right) {
    if constexpr (kSize == 0) {
        return true;
    } else if constexpr (kSize < 16) {
        constexpr size_t kWidth = std::bit_floor(kSize);
        constexpr size_t kLast = kSize - kWidth;
        const uint64_t differing = LoadWord<kWidth>(left) ^ LoadWord<kWidth>(right);
        return (differing | (LoadWord<kWidth>(left + kLast) ^ LoadWord<kWidth>(right + kLast))) == 0;
    } else {
        Vector<uint8_t> differing = LoadVector<16>(left + kSize - 16) ^ LoadVector<16>(right + kSize - 16);
        for (size_t i = 0; i + 16 <= kSize; i += 16) {
            differing |= LoadVector<16>(left + i) ^ LoadVector<16>(right + i);
        }
        return IsZero(differing);
    }
}

// Copies an array of a size that the compiler knows. For sizes such as 50 gcc would take x86's string instructions,
// whose start alone costs more than a whole small table; vector registers, the last overlapping, do it in a few moves.
// Empty arrays need not have addresses.
template <size_t kSize>
inline void CopyArray(void *to, const void *from) {
#ifdef __SSE2__
    if constexpr (kSize >= 16 && kSize <= 128) {
        auto *const out = static_cast<uint8_t *>(to);
        const auto *const in = static_cast<const uint8_t *>(from);
        for (size_t i = 0; i + 16 <= kSize; i += 16) {
            memcpy(out + i, in + i, 16);
        }
        if constexpr (kSize % 16 != 0) {
            memcpy(out + kSize - 16, in + kSize - 16, 16);
        }
        return;
    }
#endif
    if constexpr (kSize != 0) {
        memcpy(to, from, kSize);
    }
}

} // namespace velto
