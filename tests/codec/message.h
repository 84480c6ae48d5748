// Messages written field by field, so that each field can stand on a line of its own.
#pragma once

#include <initializer_list>
#include <string_view>

#include "tests/codec/record.h"

inline Bytes LittleEndian(uint64_t value, size_t width) {
    Bytes bytes(width);
    for (uint8_t &byte : bytes) {
        byte = static_cast<uint8_t>(value);
        value >>= 8;
    }
    return bytes;
}

inline Bytes U8(uint8_t value) {
    return LittleEndian(value, 1);
}
inline Bytes U16(uint16_t value) {
    return LittleEndian(value, 2);
}
inline Bytes U32(uint32_t value) {
    return LittleEndian(value, 4);
}
inline Bytes I32(int32_t value) {
    return LittleEndian(static_cast<uint32_t>(value), 4);
}
inline Bytes U64(uint64_t value) {
    return LittleEndian(value, 8);
}
inline Bytes Text(std::string_view text) {
    return Bytes(text.begin(), text.end());
}
inline Bytes Fill(size_t count, uint8_t value) {
    return Bytes(count, value);
}
// Bytes that the writer of the fixed form leaves as they were.
inline Bytes Gap(size_t count) {
    return Bytes(count, 0xAA);
}

inline Bytes Message(std::initializer_list<Bytes> fields) {
    Bytes message;
    for (const Bytes &field : fields) {
        message.insert(message.end(), field.begin(), field.end());
    }
    return message;
}

// The text as a record's JSON holds it.
inline std::string Hex(std::string_view text) {
    return ToHex(reinterpret_cast<const uint8_t *>(text.data()), text.size());
}
// Text in an array of `length` bytes, the rest 0.
inline std::string Hex(std::string_view text, size_t length) {
    std::string padded(text);
    padded.resize(length);
    return Hex(padded);
}
