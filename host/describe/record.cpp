#include "host/describe/record.h"

#include <string>

#include "host/describe/codec.h"

namespace host::describe {

uint64_t LoadScalar(const void *at, uint32_t width) {
    uint64_t value = 0;
    memcpy(&value, at, width);
    return value;
}

void StoreScalar(void *at, uint32_t width, uint64_t value) {
    memcpy(at, &value, width);
}

Elements ElementsOf(const Slot &slot, const void *record) {
    auto *const member = const_cast<uint8_t *>(static_cast<const uint8_t *>(record)) + slot.offset;
    const uint32_t size = slot.ElementSize();
    if (!velto::IsVectorKind(slot.kind)) {
        return {member, slot.kind == Kind::kTable ? 1 : slot.length, size};
    }
    auto *const first = LoadMember<uint8_t *>(record, slot.offset);
    return {first, first == nullptr ? 0 : LoadMember<uint32_t>(record, slot.countOffset), size};
}

Record::Record(const Type &type) : type_(&type), bytes_(new uint8_t[type.size + 1]()) {}

Record &Record::operator=(Record &&other) noexcept {
    std::swap(type_, other.type_);
    std::swap(bytes_, other.bytes_);
    return *this;
}

Record::~Record() {
    if (bytes_ != nullptr) {
        Release(*type_, bytes_.get());
    }
}

std::vector<uint8_t> Encode(const Record &record, Form form) {
    const Type &type = record.GetType();
    std::vector<uint8_t> message;
    if (form == Form::kFixed) {
        if (!type.fixed) {
            throw std::invalid_argument(std::string(type.name) + " has no fixed form: it holds a string or a vector");
        }
        message.resize(type.fixed->Size());
        WriteFixed(type, record.Data(), message.data());
        return message;
    }
    const uint64_t size = RegularSize(type, record.Data());
    if (size > UINT32_MAX) {
        throw std::invalid_argument(std::string(type.name) + ": the message would take more than 4294967295 bytes");
    }
    message.resize(static_cast<size_t>(size));
    WriteRegular(type, record.Data(), message.data());
    return message;
}

std::optional<Record> Decode(const Type &type, std::span<const uint8_t> message) {
    Record record(type);
    return Read(type, message, record.Data()) ? std::optional(std::move(record)) : std::nullopt;
}

} // namespace host::describe
