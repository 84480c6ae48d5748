// Any described type by its slots, and records of it: made from JSON or at random, encoded, decoded, and read back as
// JSON. Byte arrays, byte vectors and strings are hex text; an absent string and an empty vector are null; a vector
// goes by the name of its pointer member, and its count is the length of its list.
#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "velto/registry.h"

using Json = nlohmann::json;
using Type = velto::TypeInfo;
using Bytes = std::vector<uint8_t>;

std::string ToHex(const uint8_t *bytes, size_t size);
Bytes FromHex(std::string_view text);

const Type &FindType(std::string_view name);

// A slot of a type, as the tests see it.
struct Slot {
    const char *name; // of the member; of a vector's pointer
    velto::Kind kind;
    uint32_t width;  // bytes of a scalar, or of an element that is not a table
    uint32_t offset; // of the member, or of a vector's pointer
    uint32_t length; // declared, of arrays and runs
    uint32_t countOffset;
    const Type *table; // of slots that hold tables
};
const std::vector<Slot> &SlotsOf(const Type &type);
std::string FunctionName(const Type &type, const char *operation);

// A heap block of exactly the given size, so that the address sanitizer sees every byte read or written beyond it.
struct Block {
    explicit Block(size_t count, uint8_t fill = 0) : bytes(new uint8_t[count]), size(count) {
        memset(bytes.get(), fill, count);
    }
    explicit Block(const Bytes &content) : Block(content.size()) { std::copy(content.begin(), content.end(), data()); }

    uint8_t *data() const { return bytes.get(); }
    uint32_t length() const { return static_cast<uint32_t>(size); }

    std::unique_ptr<uint8_t[]> bytes;
    size_t size;
};

// A native record built from JSON, with all that it points to, each piece in a block of its own.
class Record {
public:
    Record(const Type &type, const Json &json);
    const void *get() const { return blocks_.front().data(); }

private:
    void Fill(const Type &type, uint8_t *record, const Json &json);
    void FillSlot(const Slot &slot, uint8_t *record, const Json &json);
    uint8_t *New(size_t size);

    std::vector<Block> blocks_;
};

Json ToJson(const Type &type, const void *record);

// What an absent slot, or a table without slots, decodes to.
Json AbsentSlot(const Slot &slot);
Json AbsentTable(const Type &type);
// A record with the given members; the others are absent.
Json RecordOf(const Type &type, const Json &members);

enum class Filling {
    kRandom, // zeros, nulls and empty strings among the values
    kFull,   // nothing absent or zero, two elements in each vector
};
Json RandomRecord(const Type &type, std::mt19937 &random, Filling filling);

// The regular form, written into a block of the size that the size query gives. Empty, with a test failure, when the
// encoder returns another size.
Bytes Encode(const Type &type, const Json &json);
// The fixed form, over bytes of `fill`.
Bytes EncodeFixed(const Type &type, const Json &json, uint8_t fill = 0xAA);

// A decoded record, or what a refusal left of it; released at the end.
class Decoded {
public:
    Decoded(const Type &type, const Bytes &message) : Decoded(type, Block(message)) {}
    Decoded(const Type &type, const Block &message) : Decoded(type, message.data(), message.length()) {}
    Decoded(const Type &type, const uint8_t *message, uint32_t length);
    ~Decoded() { Release(); }
    Decoded(const Decoded &) = delete;
    Decoded &operator=(const Decoded &) = delete;

    bool Accepted() const { return accepted_; }
    bool IsZero() const { return Holds(0); }
    bool IsUntouched() const { return Holds(kFill); }
    Json ToJson() const { return ::ToJson(type_, record_.data()); }
    void *get() const { return record_.data(); }
    void Release();

private:
    static constexpr uint8_t kFill = 0xEE;
    bool Holds(uint8_t fill) const;

    const Type &type_;
    Block record_;
    bool accepted_;
    bool released_ = false;
};
