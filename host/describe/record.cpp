#include "host/describe/record.h"

#include <new>

#include "host/describe/unit.h"

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
        type_->codec->freeUnpacked(bytes_.get());
    }
}

void *AllocateOwned(uint64_t size) {
    if (size > UINT32_MAX) {
        throw std::bad_alloc();
    }
    UnitBinding().EnsureMemBound();
    void *const block = UnitBinding().Alloc(static_cast<uint32_t>(size), "tarn_host_describe");
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return memset(block, 0, size);
}

std::vector<uint8_t> Encode(const Record &record, Form form) {
    const Type &type = record.GetType();
    std::vector<uint8_t> message;
    if (form == Form::kFixed) {
        if (type.codec->packFixed == nullptr) {
            throw std::invalid_argument(std::string(type.name) + " has no fixed form: it holds a string or a vector");
        }
        message.resize(type.codec->fixedSize());
        type.codec->packFixed(message.data(), record.Data());
        return message;
    }
    uint32_t size = type.codec->pack(nullptr, record.Data());
    if (size == 0) {
        throw std::invalid_argument(std::string(type.name) + ": the message would take more than 4294967295 bytes");
    }
    message.resize(size);
    const VeltoOutBuf out{message.data(), &size};
    message.resize(type.codec->pack(&out, record.Data()));
    return message;
}

std::optional<Record> Decode(const Type &type, std::span<const uint8_t> message) {
    Record record(type);
    if (message.size() > INT32_MAX ||
        type.codec->unpack(message.data(), static_cast<uint32_t>(message.size()), record.Data()) == nullptr) {
        return std::nullopt;
    }
    return record;
}

} // namespace host::describe
