// A native record of any type, which owns its storage and all that it points to.
#pragma once

#include <cstring>
#include <memory>
#include <optional>
#include <span>

#include "host/describe/types.h"

namespace host::describe {

enum class Form { kRegular, kFixed };

// Copies and stores of scalars at a member's place.
template <class Value>
Value LoadMember(const void *record, size_t offset) {
    Value value;
    memcpy(&value, static_cast<const uint8_t *>(record) + offset, sizeof value);
    return value;
}

template <class Value>
void StoreMember(void *record, size_t offset, Value value) {
    memcpy(static_cast<uint8_t *>(record) + offset, &value, sizeof value);
}

// A scalar of 1, 2, 4 or 8 bytes.
uint64_t LoadScalar(const void *at, uint32_t width);
void StoreScalar(void *at, uint32_t width, uint64_t value);

// How many elements a slot of arrays, runs or vectors holds, and where they stand; a nested table is a run of one.
struct Elements {
    uint8_t *first;
    uint32_t count;
    uint32_t size; // of each
};
Elements ElementsOf(const Slot &slot, const void *record);

class Record {
public:
    // All zero.
    explicit Record(const Type &type);
    Record(Record &&) = default;
    Record &operator=(Record &&other) noexcept;
    ~Record();

    const Type &GetType() const { return *type_; }
    void *Data() { return bytes_.get(); }
    const void *Data() const { return bytes_.get(); }

private:
    const Type *type_;
    std::unique_ptr<uint8_t[]> bytes_; // null when moved from
};

// Throws std::invalid_argument when the type has no such form, or when the message would pass 32 bits.
std::vector<uint8_t> Encode(const Record &record, Form form = Form::kRegular);

// Nothing when the buffer is refused; host/describe/explain.h says why.
std::optional<Record> Decode(const Type &type, std::span<const uint8_t> message);

} // namespace host::describe
