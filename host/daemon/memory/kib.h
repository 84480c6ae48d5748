// Sizes as the records carry them.
#pragma once

#include <algorithm>
#include <cstdint>

namespace tarnd {

// KiB in 32 bits: 4 TiB and more, which address ranges may have, is the largest number.
inline uint32_t Kib(uint64_t kib) {
    return static_cast<uint32_t>(std::min<uint64_t>(kib, UINT32_MAX));
}

inline uint32_t KibOfBytes(uint64_t bytes) {
    return Kib(bytes / 1024 + (bytes % 1024 != 0 ? 1 : 0));
}

} // namespace tarnd
