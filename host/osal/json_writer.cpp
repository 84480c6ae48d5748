#include "host/osal/json_writer.h"

namespace host {

void JsonWriter::Value(std::string_view text) {
    Separate();
    Quote(text);
}

void JsonWriter::Written(const JsonWriter &other) {
    if (!other.text_.empty()) {
        Literal(other.text_);
    }
}

void JsonWriter::Name(std::string_view name) {
    Separate();
    Quote(name);
    text_ += ':';
}

void JsonWriter::Literal(std::string_view text) {
    Separate();
    text_ += text;
}

void JsonWriter::Open(char bracket) {
    Separate();
    text_ += bracket;
}

// A text ends with its quote, so that a last character is what it looks like.
void JsonWriter::Separate() {
    if (!text_.empty() && std::string_view("{[:").find(text_.back()) == std::string_view::npos) {
        text_ += ',';
    }
}

void JsonWriter::Quote(std::string_view text) {
    static constexpr std::string_view kNamed = "\"\\\b\f\n\r\t", kNames = "\"\\bfnrt";
    static constexpr char kDigits[] = "0123456789abcdef";
    text_ += '"';
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (const size_t named = kNamed.find(c); named != std::string_view::npos) {
            text_ += '\\';
            text_ += kNames[named];
        } else if (byte < 0x20) {
            text_ += "\\u00";
            text_ += kDigits[byte >> 4];
            text_ += kDigits[byte & 0xF];
        } else {
            text_ += c;
        }
    }
    text_ += '"';
}

} // namespace host
