// Every type's decoder against messages cut short and messages with a byte changed. Whatever the message, the outcome
// is a record, which releases to nothing, or a refusal, which leaves nothing behind. Messages and records are in heap
// blocks of their exact size, where the address sanitizer sees every byte touched beyond them.
#include <gtest/gtest.h>

#include <fstream>
#include <map>

#include "tests/codec/platform.h"
#include "tests/codec/swapped_mode.h"
#include "tests/codec/wire.h"

namespace {
constexpr size_t kChangedBytes = 512;

bool HoldsNull(const Json &json) {
    return json.is_null() || (json.is_structured() &&
                              std::any_of(json.begin(), json.end(), [](const Json &part) { return HoldsNull(part); }));
}

// For each type, the shortest golden message of each form, and of the regular form that with nothing absent.
std::map<std::string, std::vector<Bytes>> GoldenMessages() {
    std::map<std::string, std::map<std::string, Bytes>> shortest;
    std::ifstream stream(TEST_GOLDEN_DIR "/accepted.jsonl");
    for (std::string line; std::getline(stream, line);) {
        const Json vector = Json::parse(line);
        const Bytes wire = FromHex(vector.at("wire").get<std::string>());
        const auto form = vector.at("form").get<std::string>();
        auto &ofType = shortest[vector.at("type").get<std::string>()];
        for (const std::string &kind : {form, HoldsNull(vector.at("record")) ? form : form + " complete"}) {
            Bytes &known = ofType[kind];
            if (known.empty() || wire.size() < known.size()) {
                known = wire;
            }
        }
    }
    EXPECT_FALSE(shortest.empty());
    std::map<std::string, std::vector<Bytes>> messages;
    for (auto &[type, kinds] : shortest) {
        for (auto &[kind, wire] : kinds) {
            auto &ofType = messages[type];
            if (std::find(ofType.begin(), ofType.end(), wire) == ofType.end()) {
                ofType.push_back(wire);
            }
        }
    }
    return messages;
}

std::vector<Bytes> MessagesOf(const Type &type) {
    static const auto golden = GoldenMessages();
    std::vector<Bytes> messages;
    if (const auto known = golden.find(type.name); known != golden.end()) {
        messages = known->second;
    }
    std::mt19937 random(7);
    const Json record = RandomRecord(type, random, Filling::kFull);
    const bool isLong = type.shape->size > 4096; // the golden ones suffice
    if (messages.empty() || !isLong) {
        messages.push_back(Encode(type, record));
        if (type.packFixed != nullptr) {
            messages.push_back(EncodeFixed(type, record));
        }
    }
    return messages;
}

struct Outcomes {
    size_t accepted = 0, refused = 0;
};

void Try(const Type &type, const Block &message, Outcomes &outcomes) {
    Decoded decoded(type, message);
    if (decoded.Accepted()) {
        ++outcomes.accepted;
        decoded.Release();
    } else {
        ++outcomes.refused;
        ASSERT_TRUE(decoded.IsZero() || decoded.IsUntouched()) << "a refusal left something in the record";
    }
    auto &trace = PlatformTrace();
    ASSERT_TRUE(trace.live.empty());
    ASSERT_TRUE(trace.misuse.empty()) << trace.misuse.front();
    trace.Clear();
}

// Calls attack(type, message, outcomes) for the messages of every type, with the log off.
template <class Attack>
Outcomes EachMessage(Attack attack) {
    Outcomes outcomes;
    PlatformTrace().keepsLog = false;
    for (const Type &type : velto::Registry()) {
        size_t index = 0;
        for (const Bytes &message : MessagesOf(type)) {
            SCOPED_TRACE(std::string(type.name) + ", message " + std::to_string(index++));
            attack(type, message, outcomes);
            if (testing::Test::HasFatalFailure()) {
                break;
            }
        }
    }
    PlatformTrace().keepsLog = true;
    testing::Test::RecordProperty("accepted", static_cast<int>(outcomes.accepted));
    testing::Test::RecordProperty("refused", static_cast<int>(outcomes.refused));
    return outcomes;
}

void TryEveryTruncation(const Type &type, const Bytes &message, Outcomes &outcomes) {
    for (size_t length = 0; length < message.size() && !testing::Test::HasFatalFailure(); ++length) {
        Block cut(length);
        std::copy_n(message.begin(), length, cut.data());
        Try(type, cut, outcomes);
    }
}

void TryEveryChangeOfAByte(const Type &type, const Bytes &message, Outcomes &outcomes) {
    Block block(message);
    for (size_t at = 0; at < std::min(message.size(), kChangedBytes); ++at) {
        const uint8_t byte = message[at];
        for (const int change : {0, 1, 0x7F, 0x80, 0xFF, byte + 1, byte - 1}) {
            block.data()[at] = static_cast<uint8_t>(change);
            Try(type, block, outcomes);
            if (testing::Test::HasFatalFailure()) {
                FAIL() << "byte " << at << " changed to " << change;
            }
        }
        block.data()[at] = byte;
    }
}
} // namespace

TEST(Robustness, EveryTruncationOfAMessageIsDecodedOrRefusedCleanly) {
    const Outcomes outcomes = EachMessage(TryEveryTruncation);
    EXPECT_GT(outcomes.refused, 0U);
}

TEST(Robustness, EveryChangeOfAByteIsDecodedOrRefusedCleanly) {
    const Outcomes outcomes = EachMessage(TryEveryChangeOfAByte);
    EXPECT_GT(outcomes.accepted, 0U);
    EXPECT_GT(outcomes.refused, 0U);
}

TEST(Robustness, EveryChangeOfAByteIsDecodedOrRefusedCleanlyInTheSwappedMode) {
    const auto attack = [](const Type &type, const Bytes &message, Outcomes &outcomes) {
        Bytes reversed = message;
        for (const Span &number : ReadLayout(type, message).numbers) {
            const auto start = reversed.begin() + static_cast<ptrdiff_t>(number.at);
            std::reverse(start, start + static_cast<ptrdiff_t>(number.width));
        }
        const SwappedMode swapped;
        TryEveryChangeOfAByte(type, reversed, outcomes);
    };
    const Outcomes outcomes = EachMessage(attack);
    EXPECT_GT(outcomes.accepted, 0U);
    EXPECT_GT(outcomes.refused, 0U);
}

// A table that lacks a slot is read by another decoder than a complete one.
TEST(Robustness, EveryChangeOfAByteIsDecodedOrRefusedCleanlyInAnOlderWritersMessage) {
    const auto attack = [](const Type &type, const Bytes &message, Outcomes &outcomes) {
        const TableAt root = ReadLayout(type, message).tables.front();
        if (const size_t slots = SlotsOf(type).size(); slots != 0) {
            Bytes older = message;
            WriteNumber(older, root.vtable, 2, 4 + 2 * (slots - 1));
            TryEveryChangeOfAByte(type, older, outcomes);
        }
    };
    const Outcomes outcomes = EachMessage(attack);
    EXPECT_GT(outcomes.accepted, 0U);
    EXPECT_GT(outcomes.refused, 0U);
}

TEST(Robustness, AMessageMadeOfOneByteIsDecodedOrRefusedCleanly) {
    Outcomes outcomes;
    PlatformTrace().keepsLog = false;
    for (const Type &type : velto::Registry()) {
        for (const int byte : {0x00, 0x01, 0x04, 0x7F, 0x80, 0xFF}) {
            for (size_t length = 0; length < 64; ++length) {
                Try(type, Block(length, static_cast<uint8_t>(byte)), outcomes);
            }
        }
    }
    PlatformTrace().keepsLog = true;
    EXPECT_GT(outcomes.refused, 0U);
}
