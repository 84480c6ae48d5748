#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace host {

// Two lower-case hexadecimal digits for each byte.
std::string Hex(std::span<const uint8_t> bytes, std::string_view between = "");

} // namespace host
