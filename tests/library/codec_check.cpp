#include "tests/library/codec_check.h"

#include <gtest/gtest.h>

#include "tests/library/platform.h"

namespace {
Json FullRecord(const Type &type) {
    std::mt19937 random(type.hash);
    return RandomRecord(type, random, Filling::kFull);
}

void ExpectOneLog(const std::string &function) {
    const auto &log = Platform::Get().log;
    ASSERT_EQ(log.size(), 1U);
    EXPECT_EQ(log[0].function, function);
    EXPECT_EQ(log[0].code, 22U);
}

// Storage for a native record.
struct AlignedRecord {
    explicit AlignedRecord(const Type &type) : words(type.shape->size / 8 + 1) {}
    void *get() { return words.data(); }
    std::vector<uint64_t> words;
};
} // namespace

void ExpectDecoderOf(const Type &type, VeltoUnpackFn unpack) {
    ASSERT_NE(unpack, nullptr);
    Platform &platform = Platform::Get();
    platform.Start();
    EXPECT_EQ(unpack(nullptr, 0, nullptr), nullptr);
    ExpectOneLog("Tarn_sys_diag_" + std::string(type.name) + "_unpack");

    const Json json = FullRecord(type);
    const Block message(Encode(type, json));
    AlignedRecord record(type);
    ASSERT_EQ(unpack(message.data(), message.length(), record.get()), record.get());
    EXPECT_EQ(ToJson(type, record.get()), json);
    type.freeUnpacked(record.get());
    EXPECT_EQ(platform.LiveBlocks(), 0U);
}

void ExpectEncoderOf(const Type &type, VeltoPackFn pack) {
    ASSERT_NE(pack, nullptr);
    Platform::Get().Start();
    const VeltoOutBuf nowhere{nullptr, nullptr};
    EXPECT_EQ(pack(&nowhere, nullptr), 0U);
    ExpectOneLog("Tarn_sys_diag_" + std::string(type.name) + "_pack");

    const Json json = FullRecord(type);
    const Record record(type, json);
    const Bytes expected = Encode(type, json);
    ASSERT_EQ(pack(nullptr, record.get()), expected.size());
    const Block block(expected.size(), 0xAA);
    uint32_t capacity = block.length();
    const VeltoOutBuf out{block.data(), &capacity};
    ASSERT_EQ(pack(&out, record.get()), expected.size());
    EXPECT_EQ(Bytes(block.data(), block.data() + block.size), expected);
}

void ExpectReleaseOf(const Type &type, VeltoFreeFn release) {
    ASSERT_NE(release, nullptr);
    Platform &platform = Platform::Get();
    const Block message(Encode(type, FullRecord(type)));
    std::vector<std::string> calls[2]; // of the release in the slot, and of the test's own
    for (const VeltoFreeFn function : {release, type.freeUnpacked}) {
        platform.Start();
        AlignedRecord record(type);
        ASSERT_NE(type.unpack(message.data(), message.length(), record.get()), nullptr);
        EXPECT_EQ(platform.LiveBlocks() != 0, type.owns);
        EXPECT_EQ(function(record.get()), record.get());
        EXPECT_EQ(platform.LiveBlocks(), 0U);
        EXPECT_EQ(platform.misuse, std::vector<std::string>{});
        calls[function == release ? 0 : 1] = platform.Calls();
    }
    EXPECT_EQ(calls[0], calls[1]) << "with the tags of the type";
}

void ExpectFixedFormOf(const Type &type, VeltoFixedPackFn pack, VeltoFixedSizeFn size) {
    ASSERT_EQ(pack != nullptr, type.packFixed != nullptr);
    ASSERT_EQ(size != nullptr, type.packFixed != nullptr);
    if (pack == nullptr) {
        return;
    }
    ASSERT_EQ(size(), type.fixedSize());
    const Json json = FullRecord(type);
    const Record record(type, json);
    const Block block(size(), 0xAA);
    EXPECT_EQ(pack(block.data(), record.get()), 0U);
    EXPECT_EQ(Bytes(block.data(), block.data() + block.size), EncodeFixed(type, json));
}
