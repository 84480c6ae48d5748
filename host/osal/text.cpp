#include "host/osal/text.h"

#include <algorithm>
#include <cstdint>

namespace host {

namespace {

// The code point at the start of valid UTF-8 and how many bytes it takes; 0 bytes when it is not valid.
struct CodePoint {
    uint32_t value;
    size_t length;
};
CodePoint FirstCodePoint(std::string_view text) {
    const auto byte = [&text](size_t i) { return static_cast<uint8_t>(text[i]); };
    const size_t length = byte(0) < 0x80       ? 1
                          : byte(0) >> 5 == 6  ? 2
                          : byte(0) >> 4 == 14 ? 3
                          : byte(0) >> 3 == 30 ? 4
                                               : 0;
    if (length == 0 || length > text.size()) {
        return {0, 0};
    }
    uint32_t value = length == 1 ? byte(0) : byte(0) & (0x7Fu >> length);
    for (size_t i = 1; i < length; ++i) {
        if (byte(i) >> 6 != 2) {
            return {0, 0};
        }
        value = value << 6 | (byte(i) & 0x3F);
    }
    constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = value >= 0xD800 && value <= 0xDFFF;
    return {value, value < kLeast[length] || value > 0x10FFFF || surrogate ? 0 : length};
}

bool IsBlank(uint32_t character) {
    return character == '\t' || character == '\n' || character == '\r';
}

// How many bytes the first character takes; 0 when it is no text.
size_t FirstOfText(std::string_view bytes) {
    const CodePoint point = FirstCodePoint(bytes);
    const bool control = (point.value < 0x20 && !IsBlank(point.value)) || (point.value >= 0x7F && point.value < 0xA0);
    return control ? 0 : point.length;
}

} // namespace

bool IsText(std::string_view bytes) {
    while (!bytes.empty()) {
        const size_t length = FirstOfText(bytes);
        if (length == 0) {
            return false;
        }
        bytes.remove_prefix(length);
    }
    return true;
}

std::string LineOfText(std::string_view bytes) {
    std::string line;
    while (!bytes.empty()) {
        const size_t length = FirstOfText(bytes);
        line += length == 0 ? "?" : IsBlank(static_cast<uint8_t>(bytes[0])) ? " " : bytes.substr(0, length);
        bytes.remove_prefix(std::max<size_t>(length, 1));
    }
    return line;
}

} // namespace host
