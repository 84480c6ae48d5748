#include "host/describe/escape.h"

#include <fmt/format.h>

#include "host/describe/json.h"
#include "host/osal/text.h"

namespace host::describe {

namespace {

constexpr std::string_view kEscape = "\\x";
constexpr size_t kDigits = 2;

// How many bytes the character in front takes; 0 when it is none.
size_t CharacterAt(std::string_view bytes) {
    constexpr size_t kLongest = 4;
    for (size_t length = 1; length <= kLongest && length <= bytes.size(); ++length) {
        if (IsText(bytes.substr(0, length))) {
            return length;
        }
    }
    return 0;
}

} // namespace

std::string Escaped(std::string_view bytes) {
    std::string text;
    while (!bytes.empty()) {
        size_t length = bytes.starts_with(kEscape) ? 0 : CharacterAt(bytes);
        if (length != 0) {
            text += bytes.substr(0, length);
        } else {
            length = 1;
            text += fmt::format("\\x{:02x}", static_cast<uint8_t>(bytes.front()));
        }
        bytes.remove_prefix(length);
    }
    return text;
}

std::string Unescaped(std::string_view text) {
    std::string bytes;
    while (!text.empty()) {
        const auto digits = text.starts_with(kEscape) ? text.substr(kEscape.size(), kDigits) : std::string_view();
        const auto byte = digits.size() == kDigits ? FromHex(digits) : std::nullopt;
        bytes += byte ? static_cast<char>(byte->front()) : text.front();
        text.remove_prefix(byte ? kEscape.size() + kDigits : 1);
    }
    return bytes;
}

} // namespace host::describe
