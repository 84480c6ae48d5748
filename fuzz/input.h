// How the fuzz targets read an input: which type it is for, and its bytes in a heap block of exactly their size, so
// that the address sanitizer sees every byte read or written beyond them.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>

namespace fuzz {

struct Block {
    explicit Block(size_t count, uint8_t fill = 0xAA) : bytes(new uint8_t[count]), size(count) {
        memset(bytes.get(), fill, count);
    }
    Block(const uint8_t *from, size_t count) : bytes(new uint8_t[count]), size(count) {
        if (count != 0) {
            memcpy(bytes.get(), from, count);
        }
    }

    uint8_t *data() const { return bytes.get(); }
    uint32_t length() const { return static_cast<uint32_t>(size); }

    std::unique_ptr<uint8_t[]> bytes;
    size_t size;
};

// The upper half of a type's hash picks the type, so that a corpus stays good when types are added: a key that no type
// has picks the one with the next larger key.
constexpr size_t kKeySize = 2;

inline uint16_t TypeKey(uint32_t hash) {
    return static_cast<uint16_t>(hash >> 16);
}

template <class Type>
class TypePicker {
public:
    template <class Types>
    explicit TypePicker(const Types &types) {
        for (const Type &type : types) {
            byKey_.emplace(TypeKey(type.hash), &type);
        }
    }

    const Type &Pick(const uint8_t *key) const {
        uint16_t wanted;
        memcpy(&wanted, key, sizeof wanted);
        const auto found = byKey_.lower_bound(wanted);
        return *(found == byKey_.end() ? byKey_.begin() : found)->second;
    }

    size_t Size() const { return byKey_.size(); }

private:
    std::map<uint16_t, const Type *> byKey_;
};

} // namespace fuzz
