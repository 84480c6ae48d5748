#include "host/osal/hex.h"

namespace host {

std::string Hex(std::span<const uint8_t> bytes, std::string_view between) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve((2 + between.size()) * bytes.size());
    for (const uint8_t byte : bytes) {
        if (!hex.empty()) {
            hex += between;
        }
        hex += kDigits[byte >> 4];
        hex += kDigits[byte & 15];
    }
    return hex;
}

} // namespace host
