// Places in a message that is not trusted. Nothing here adds a wire value to a position before it is known to fit:
// every check compares the value with the bytes that remain, so none can wrap. All reading of wire offsets and counts
// goes through this file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/binding.h"
#include "velto/bytes.h"
#include "velto/room.h"

namespace velto {

// What a message says. Neither can be calculated with: only the functions below turn them into places and sizes, and
// do it after a check.
enum class Offset : uint32_t {}; // of a field from its table's start
enum class Count : uint32_t {};  // of elements

constexpr Offset kAbsent{0}; // a field that the message does not have

// The number alone, for a record's count and to count up to.
constexpr uint32_t Number(Count count) {
    return static_cast<uint32_t>(count);
}

// The bytes of as many elements as were allocated or lie within a message.
constexpr size_t Bytes(Count count, uint32_t width) {
    return size_t{Number(count)} * width;
}

// A received buffer; its length is at least 4 and, as a signed number, positive.
struct Message {
    const uint8_t *bytes;
    uint32_t length;
};

// A place in a message and the bytes from there to its end.
struct Place {
    const uint8_t *at;
    uint32_t left;
};

// A table whose vtable has been verified.
struct OpenedTable {
    Place start;          // at least the 4 bytes of the distance word
    const uint8_t *slots; // the vtable's entries
    uint32_t slotNum;     // how many there are: a writer may know fewer than the reader, or more
};

// What the vtable says of a slot that it has.
template <bool kSwapped = false>
Offset SlotOffset(const OpenedTable &table, size_t index) {
    return Offset{Load<uint16_t, kSwapped>(table.slots + 2 * index)};
}

// Whether a field of `width` bytes at `offset` lies within the message.
inline bool Holds(const OpenedTable &table, Offset offset, uint32_t width) {
    return (width <= 4 || width <= table.start.left) && static_cast<uint32_t>(offset) <= table.start.left - width;
}

// The place of a field that the message holds.
inline Place FieldAt(const OpenedTable &table, Offset offset) {
    const auto bytes = static_cast<uint32_t>(offset);
    return {table.start.at + bytes, table.start.left - bytes};
}

// Moves along the offset word at `place`, which lies within the message, to a count that does too.
template <bool kSwapped = false>
bool Follow(Place &place) {
    const auto offset = Load<uint32_t, kSwapped>(place.at);
    if (offset > place.left - 4) {
        return false;
    }
    place = {place.at + offset, place.left - offset};
    return true;
}

// How many elements fit. They have 1, 4 or 8 bytes; a division by a variable would be a function call on ARM.
inline uint32_t Quotient(uint32_t bytes, uint32_t width) {
    return width == 1 ? bytes : width == 4 ? bytes / 4 : bytes / 8;
}

// Reads the count at `place` and moves behind it. False unless as many elements lie within the message.
template <bool kSwapped = false>
bool TakeCount(Place &place, uint32_t width, Count &count) {
    count = Count{Load<uint32_t, kSwapped>(place.at)};
    place = {place.at + 4, place.left - 4};
    return Number(count) <= Quotient(place.left, width);
}

// The position that the offset word at `word` leads to; 0, where no table can be, when it wraps.
template <bool kSwapped = false>
uint32_t TablePosition(const Message &message, const uint8_t *word) {
    uint32_t position;
    const auto from = static_cast<uint32_t>(word - message.bytes);
    return __builtin_add_overflow(from, Load<uint32_t, kSwapped>(word), &position) ? 0 : position;
}

// Verifies the table at `position` and its vtable, and logs what it refuses under the decoder's name.
template <bool kSwapped>
[[gnu::always_inline]] inline bool VerifyTable(platform::Binding &binding, const Message &message, uint32_t position,
                                               const char *function, OpenedTable &table) {
    const uint32_t last = message.length - 4;
    if (position < 4 || position > last) [[unlikely]] {
        binding.Log(platform::kInvalid, __LINE__, function, "[VELTO]:Table offset(%u) is out of range(4 - %u)",
                    position, message.length);
        return false;
    }
    table.start = {message.bytes + position, message.length - position};
    const uint32_t vtable = position - Load<uint32_t, kSwapped>(table.start.at);
    if (vtable < 4 || vtable > last) [[unlikely]] {
        binding.Log(platform::kInvalid, __LINE__, function, "[VELTO]:Vtable offset(%u) is out of range(4 - %u)",
                    position, last);
        return false;
    }
    const uint32_t length = Load<uint16_t, kSwapped>(message.bytes + vtable);
    if (length > message.length - vtable) [[unlikely]] {
        binding.Log(platform::kInvalid, __LINE__, function, "[VELTO]:Vtable Len(%u) is out of range(0 - %u)", length,
                    message.length - vtable);
        return false;
    }
    table.slots = message.bytes + vtable + 4;
    table.slotNum = length < 4 ? 0 : (length - 4) / 2;
    return true;
}

// The same as a function, for the slow paths.
template <bool kSwapped = false>
[[gnu::noinline]] bool OpenTable(platform::Binding &binding, const Message &message, uint32_t position,
                                 const char *function, OpenedTable &table) {
    return VerifyTable<kSwapped>(binding, message, position, function, table);
}

// The same in a frame, compiled in where there is room.
[[gnu::always_inline]] inline bool OpenTableInFrame(platform::Binding &binding, const Message &message,
                                                    uint32_t position, const char *function, OpenedTable &table) {
    return kPrefersSpeed ? VerifyTable<false>(binding, message, position, function, table)
                         : OpenTable<false>(binding, message, position, function, table);
}

// The start of the `before` bytes in front of a position, if they, the position, and the bytes from there to `behind`
// lie in the message behind its root offset; else null.
inline const uint8_t *BytesAround(const Message &message, uint32_t position, uint32_t before, uint32_t behind) {
    const bool within = position >= 4 + before && behind <= message.length && position <= message.length - behind;
    return within ? message.bytes + position - before : nullptr;
}

// A new array for decoded elements, or null, which it logs under the decoder's name. A size that does not fit the
// allocator's 32 bits is refused like memory that is not there.
inline void *AllocArray(platform::Binding &binding, Count count, uint32_t width, const char *function) {
    const uint64_t size = uint64_t{Number(count)} * width;
    void *const array = size > UINT32_MAX ? nullptr : binding.Alloc(static_cast<uint32_t>(size), function);
    if (array == nullptr) {
        binding.Log(platform::kNoMemory, __LINE__, function, "[VELTO]:Malloc unpack data failed, size(%u)",
                    size > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(size));
    }
    return array;
}

// A new copy of the `length` bytes at `place` with a terminating 0, or null, as AllocArray. The length was taken with
// TakeCount, so it leaves room for the terminator in 32 bits.
inline char *CopyString(platform::Binding &binding, const Place &place, Count length, const char *function) {
    const uint32_t bytes = Number(length);
    auto *const text = static_cast<char *>(AllocArray(binding, Count{bytes + 1}, 1, function));
    if (text != nullptr) {
        memcpy(text, place.at, bytes);
        text[bytes] = 0;
    }
    return text;
}

} // namespace velto
