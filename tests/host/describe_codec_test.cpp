// The codec that tools derive from descriptions, against the library's: the same bytes, the same records.
#include "tests/codec/record.h"

#include <gtest/gtest.h>

#include "host/describe/codec.h"
#include "host/describe/record.h"
#include "host/osal/log.h"

namespace {

namespace describe = host::describe;

constexpr uint32_t kRounds = 20;

// Calls check(type, the library's codec of it, a record) for records of every type, full and random ones.
template <class Check>
void EachRecord(Check check) {
    for (const describe::Type &type : describe::Types()) {
        for (uint32_t round = 0; round < kRounds && !testing::Test::HasFailure(); ++round) {
            SCOPED_TRACE(std::string(type.name) + ", round " + std::to_string(round));
            std::mt19937 random(round);
            const Type &codec = FindType(type.name);
            check(type, codec, RandomRecord(codec, random, round == 0 ? Filling::kFull : Filling::kRandom));
        }
    }
}

TEST(DescribedCodec, KnowsEveryTypeAsTheLibraryDoes) {
    EXPECT_GE(describe::Types().size(), 190);
    for (const describe::Type &type : describe::Types()) {
        SCOPED_TRACE(type.name);
        const Type &codec = FindType(type.name);
        EXPECT_EQ(type.hash, codec.hash);
        EXPECT_EQ(type.fixed.has_value(), !codec.owns);
        ASSERT_EQ(type.fixed.has_value(), codec.fixedSize != nullptr);
        if (type.fixed) {
            EXPECT_EQ(type.fixed->Size(), codec.fixedSize());
            EXPECT_TRUE(std::equal(type.fixed->offsets.begin(), type.fixed->offsets.end(), codec.fixedOffsets));
        }
    }
}

TEST(DescribedCodec, WritesTheLibrarysBytes) {
    EachRecord([](const describe::Type &type, const Type &codec, const Json &json) {
        const Record record(codec, json);
        const Bytes expected = Encode(codec, json);
        ASSERT_EQ(describe::RegularSize(type, record.get()), expected.size());
        Bytes message(expected.size(), 0xAA);
        describe::WriteRegular(type, record.get(), message.data());
        EXPECT_EQ(message, expected);
    });
}

TEST(DescribedCodec, WritesTheLibrarysFixedForm) {
    EachRecord([](const describe::Type &type, const Type &codec, const Json &json) {
        if (type.fixed) {
            const Record record(codec, json);
            Bytes message(type.fixed->Size(), 0xAA);
            describe::WriteFixed(type, record.get(), message.data());
            EXPECT_EQ(message, EncodeFixed(codec, json));
        }
    });
}

TEST(DescribedCodec, ReadsWhatTheLibraryReads) {
    EachRecord([](const describe::Type &type, const Type &codec, const Json &json) {
        const Bytes message = Encode(codec, json);
        const auto record = describe::Decode(type, message);
        ASSERT_TRUE(record);
        EXPECT_EQ(ToJson(codec, record->Data()), json);
        EXPECT_EQ(describe::Encode(*record), message);
    });
}

// With bytes that were changed, cut off or taken from elsewhere.
TEST(DescribedCodec, RefusesWhatTheLibraryRefuses) {
    uint32_t refused = 0;
    host::SetLogHook([](const host::LogRecord &) {}); // of each refusal
    EachRecord([&](const describe::Type &type, const Type &codec, const Json &json) {
        Bytes message = Encode(codec, json);
        std::mt19937 random(static_cast<uint32_t>(message.size()));
        message[random() % message.size()] ^= static_cast<uint8_t>(1u << random() % 8);
        message.resize(message.size() - random() % 3);
        const Decoded expected(codec, message);
        const auto record = describe::Decode(type, message);
        ASSERT_EQ(record.has_value(), expected.Accepted());
        refused += record ? 0 : 1;
        if (record) {
            EXPECT_EQ(ToJson(codec, record->Data()), expected.ToJson());
        }
    });
    host::SetLogHook(nullptr);
    EXPECT_GT(refused, 100);
    for (const size_t size : {0U, 3U}) {
        EXPECT_FALSE(describe::Decode(*describe::FindType("None"), Bytes(size))) << size;
    }
}

} // namespace
