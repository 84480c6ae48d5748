// Messages in the full and in the fixed form, for which the codecs have straight copies. Those must come to what the
// table-driven decoder comes to, which knows nothing of them.
#include <gtest/gtest.h>

#include <bit>

#include "tests/codec/platform.h"
#include "tests/codec/wire.h"

namespace {
constexpr size_t kChangedBytes = 512;

Bytes EncodeOver0xAA(const Type &type, const Json &record) {
    return type.packFixed == nullptr ? Bytes() : EncodeFixed(type, record);
}

// Calls check(type, message, record) for a message of each type that has this form. Nothing in the record is 0.
template <class Check>
void EachMessage(Bytes (*encode)(const Type &, const Json &), Check check) {
    std::mt19937 random(11);
    for (const Type &type : velto::Registry()) {
        if (type.shape->size > 4096) {
            continue; // as the others, but long
        }
        SCOPED_TRACE(type.name);
        const Json record = RandomRecord(type, random, Filling::kFull);
        if (const Bytes message = encode(type, record); !message.empty()) {
            check(type, message, record);
        }
        if (testing::Test::HasFailure()) {
            break;
        }
    }
}

// A record by the table-driven decoder alone.
class DecodedByTable {
public:
    DecodedByTable(const Type &type, const Block &message) : type_(type), record_(type.shape->size) {
        static platform::Binding binding;
        binding.EnsureMemBound();
        const velto::Message whole{message.data(), message.length()};
        const std::string function = FunctionName(type, "_unpack");
        velto::OpenedTable table;
        opened_ = velto::OpenTable(binding, whole, velto::Load<uint32_t>(whole.bytes), function.c_str(), table);
        accepted_ = opened_ && velto::TableDriven<false>(binding, whole)
                                   .DecodeFields(*type.shape, table, record_.data(), function.c_str());
    }
    ~DecodedByTable() { type_.freeUnpacked(record_.data()); }
    DecodedByTable(const DecodedByTable &) = delete;
    DecodedByTable &operator=(const DecodedByTable &) = delete;

    void ExpectSame(const Decoded &decoded) const {
        ASSERT_EQ(decoded.Accepted(), accepted_);
        if (!accepted_) {
            EXPECT_TRUE(opened_ ? decoded.IsZero() : decoded.IsUntouched());
        } else if (type_.owns) {
            EXPECT_EQ(decoded.ToJson(), ToJson(type_, record_.data()));
        } else {
            EXPECT_EQ(memcmp(decoded.get(), record_.data(), record_.size), 0) << "gaps included";
        }
    }

private:
    const Type &type_;
    Block record_;
    bool opened_;
    bool accepted_;
};

void ExpectSameOutcome(const Type &type, const Bytes &bytes) {
    const Block message(bytes);
    PlatformTrace().Clear();
    const Decoded decoded(type, message);
    const auto log = PlatformTrace().log;
    PlatformTrace().log.clear();
    DecodedByTable(type, message).ExpectSame(decoded);
    EXPECT_EQ(log, PlatformTrace().log);
}

// A number with one bit set, of at most the width of `number`.
uint64_t SparseNumber(uint64_t number, size_t at) {
    return std::bit_floor(number) >> (number > UINT32_MAX ? at % 8 * 8 : 0);
}

// The scalars in a record's JSON, those of nested records too, and elements of arrays.
void FindNumbers(const Json &json, const Json::json_pointer &at, std::vector<Json::json_pointer> &numbers) {
    if (json.is_number()) {
        numbers.push_back(at);
    } else if (json.is_object()) {
        for (const auto &[name, value] : json.items()) {
            FindNumbers(value, at / name, numbers);
        }
    } else if (json.is_array()) {
        for (size_t i = 0; i < json.size(); ++i) {
            FindNumbers(json[i], at / i, numbers);
        }
    }
}

void CutAnywhere(const Type &type, const Bytes &message, const Json &) {
    for (size_t length = 4; length <= message.size() && !testing::Test::HasFailure(); ++length) {
        SCOPED_TRACE(length);
        ExpectSameOutcome(type, Bytes(message.begin(), message.begin() + static_cast<ptrdiff_t>(length)));
    }
}

void ChangeAnyByte(const Type &type, const Bytes &message, const Json &) {
    for (size_t at = 0; at < std::min(message.size(), kChangedBytes) && !testing::Test::HasFailure(); ++at) {
        for (const int change : {0, message[at] + 1, message[at] ^ 0x80}) {
            Bytes changed = message;
            changed[at] = static_cast<uint8_t>(change);
            SCOPED_TRACE("byte " + std::to_string(at) + " changed to " + std::to_string(changed[at]));
            ExpectSameOutcome(type, changed);
        }
    }
}

// With other bytes between the root offset and the tables, and behind them.
void MoveAside(const Type &type, const Bytes &message, const Json &record) {
    Bytes moved = message;
    moved.insert(moved.begin() + 4, 7, 0xFF);
    moved.insert(moved.end(), 7, 0xFF);
    WriteNumber(moved, 0, 4, ReadNumber(message, 0, 4) + 7);
    const Decoded decoded(type, moved);
    ASSERT_TRUE(decoded.Accepted());
    ASSERT_EQ(decoded.ToJson(), record);
}
} // namespace

TEST(FullTable, CutAnywhereIsTakenAsTheTableDrivenDecoderTakesIt) {
    EachMessage(Encode, CutAnywhere);
}

TEST(FullTable, WithAnyByteChangedIsTakenAsTheTableDrivenDecoderTakesIt) {
    EachMessage(Encode, ChangeAnyByte);
}

TEST(FullTable, InFrontOfOrBehindOtherBytesIsFound) {
    EachMessage(Encode, MoveAside);
}

TEST(FixedForm, CutAnywhereIsTakenAsTheTableDrivenDecoderTakesIt) {
    EachMessage(EncodeOver0xAA, CutAnywhere);
}

TEST(FixedForm, WithAnyByteChangedIsTakenAsTheTableDrivenDecoderTakesIt) {
    EachMessage(EncodeOver0xAA, ChangeAnyByte);
}

TEST(FixedForm, InFrontOfOrBehindOtherBytesIsRead) {
    EachMessage(EncodeOver0xAA, MoveAside);
}

TEST(FixedForm, WithScalarsOf0IsReadAsTheTableDrivenDecoderReadsIt) {
    std::mt19937 random(12);
    EachMessage(EncodeOver0xAA, [&](const Type &type, const Bytes &, const Json &) {
        for (int i = 0; i < 50; ++i) {
            ExpectSameOutcome(type, EncodeOver0xAA(type, RandomRecord(type, random, Filling::kRandom)));
        }
    });
}

// Also with scalars of which only one byte is set: the others are not taken for zeros.
TEST(FullTable, ButForOneScalarRoundTrips) {
    EachMessage(Encode, [](const Type &type, const Bytes &message, const Json &record) {
        std::vector<Json::json_pointer> numbers;
        FindNumbers(record, Json::json_pointer(), numbers);
        for (size_t i = 0; i < std::min<size_t>(numbers.size(), 64); ++i) {
            for (const bool sparse : {false, true}) {
                Json other = record;
                for (size_t k = 0; sparse && k < numbers.size(); ++k) {
                    other[numbers[k]] = SparseNumber(other[numbers[k]].get<uint64_t>(), k);
                }
                other[numbers[i]] = 0;
                SCOPED_TRACE(numbers[i].to_string());
                const Bytes encoded = Encode(type, other);
                ASSERT_LE(encoded.size(), message.size());
                const Decoded decoded(type, encoded);
                ASSERT_TRUE(decoded.Accepted());
                ASSERT_EQ(decoded.ToJson(), other);
            }
        }
    });
}
