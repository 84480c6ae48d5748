#include "host/describe/explain.h"

#include <gtest/gtest.h>

#include <set>

#include "host/describe/record.h"
#include "host/osal/accounting.h"
#include "host/osal/hex.h"
#include "host/osal/log.h"
#include "tests/host/golden.h"
#include "velto/bytes.h"

namespace host::describe {
namespace {

// What a decoder does with a message, in its own words.
struct Verdict {
    bool accepted;
    std::string log;

    bool operator==(const Verdict &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Verdict &verdict) {
    return out << (verdict.accepted ? "accepted" : "refused: " + verdict.log);
}

class Explain_ : public testing::Test {
protected:
    Explain_() {
        SetLogHook([this](const LogRecord &record) {
            log_ += record.function + " (" + std::to_string(record.errCode) + ") " + record.text;
        });
    }
    ~Explain_() override { SetLogHook(nullptr); }

    Verdict Decoder(const Type &type, std::span<const uint8_t> message) {
        log_.clear();
        const bool accepted = Decode(type, message).has_value();
        return {accepted, log_};
    }

    static Verdict Explainer(const Type &type, std::span<const uint8_t> message) {
        const auto explanation = Explain(type, message, false);
        return {!explanation.refusal, explanation.refusal ? explanation.refusal->log : ""};
    }

    // In a block of its own size, so that a sanitizer sees a byte too many read.
    void Compare(const Type &type, std::span<const uint8_t> message) {
        const std::vector<uint8_t> exact(message.begin(), message.end());
        ++compared_;
        if (const Verdict decoder = Decoder(type, exact); decoder != Explainer(type, exact)) {
            ADD_FAILURE() << type.name << ": the decoder: " << decoder << "; explained: " << Explainer(type, exact)
                          << "\n"
                          << host::Hex(exact).substr(0, 200);
        }
    }

    std::string log_;
    size_t compared_ = 0;
};

using ExplainAgrees = Explain_;

// The golden messages without repetitions.
std::vector<GoldenMessage> Distinct(const char *name) {
    std::vector<GoldenMessage> messages = Golden(name);
    std::set<std::pair<const Type *, std::vector<uint8_t>>> seen;
    std::erase_if(messages, [&](const auto &golden) { return !seen.emplace(golden.type, golden.wire).second; });
    return messages;
}

TEST_F(ExplainAgrees, OnGoldenMessages) {
    for (const GoldenMessage &golden : Distinct("accepted")) {
        EXPECT_FALSE(Explain(*golden.type, golden.wire).refusal) << golden.type->name;
        Compare(*golden.type, golden.wire);
    }
    for (const GoldenMessage &golden : Distinct("rejected")) {
        EXPECT_TRUE(Explain(*golden.type, golden.wire).refusal) << golden.type->name;
        Compare(*golden.type, golden.wire);
    }
    RecordProperty("compared", static_cast<int>(compared_));
}

TEST_F(ExplainAgrees, OnEveryTruncation) {
    for (const GoldenMessage &golden : Distinct("accepted")) {
        for (size_t length = 0; length < golden.wire.size(); ++length) {
            Compare(*golden.type, std::span(golden.wire).first(length));
        }
    }
    EXPECT_EQ(MemoryTotal().liveBlocks, 0u);
    RecordProperty("compared", static_cast<int>(compared_));
}

TEST_F(ExplainAgrees, OnSingleByteChanges) {
    constexpr size_t kChanged = 512;
    for (const GoldenMessage &golden : Distinct("accepted")) {
        std::vector<uint8_t> message = golden.wire;
        for (size_t i = 0; i < std::min(message.size(), kChanged); ++i) {
            const uint8_t good = message[i];
            for (const int value : {0, 1, 0x7F, 0x80, 0xFF, good - 1, good + 1}) {
                message[i] = static_cast<uint8_t>(value);
                Compare(*golden.type, message);
            }
            message[i] = good;
        }
    }
    EXPECT_EQ(MemoryTotal().liveBlocks, 0u);
    RecordProperty("compared", static_cast<int>(compared_));
}

TEST_F(ExplainAgrees, OnWordsThatWrap) {
    for (const GoldenMessage &golden : Distinct("accepted")) {
        std::vector<uint8_t> message = golden.wire;
        for (size_t i = 0; i + 4 <= std::min<size_t>(message.size(), 256); ++i) {
            for (const uint32_t value : {0xFFFFFFFFu, 0xFFFFFFFCu, 0x80000000u, 0x7FFFFFFFu, 0x40000000u}) {
                velto::Store(&message[i], value);
                Compare(*golden.type, message);
                std::copy_n(&golden.wire[i], 4, &message[i]);
            }
        }
    }
    EXPECT_EQ(MemoryTotal().liveBlocks, 0u);
    RecordProperty("compared", static_cast<int>(compared_));
}

// Result holding 7: root offset, vtable {6, 8, 4}, table {6, 7}.
std::vector<uint8_t> ResultMessage() {
    return {10, 0, 0, 0, 6, 0, 8, 0, 4, 0, 6, 0, 0, 0, 7, 0, 0, 0};
}

TEST(Refusal, SaysWhichCheckAndWhere) {
    auto message = ResultMessage();
    message[8] = 5;
    const auto refusal = Explain(*FindType("Result"), message).refusal;
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->check, Check::kField);
    EXPECT_EQ(refusal->path, "uiResult");
    EXPECT_EQ(refusal->at, 8u);
    EXPECT_EQ(refusal->value, 5u);
    EXPECT_EQ(refusal->least, 0u);
    EXPECT_EQ(refusal->most, 4u);
    EXPECT_EQ(refusal->function, "Tarn_sys_diag_Result_unpack");
    EXPECT_EQ(refusal->text, "byte 8, uiResult: the field's offset from its table is 5, expected 0 to 4");
    EXPECT_EQ(refusal->log, "");
}

TEST(Refusal, GivesTheDecodersLogRecord) {
    auto message = ResultMessage();
    message[0] = 200;
    const auto refusal = Explain(*FindType("Result"), message).refusal;
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->text, "byte 0, the message: the table's position is 200, expected 4 to 14");
    EXPECT_EQ(refusal->log, "Tarn_sys_diag_Result_unpack (22) [VELTO]:Table offset(200) is out of range(4 - 18)");
}

TEST(Refusal, NamesTheFieldOfAnElement) {
    const auto record =
        FromJson(*FindType("OsProcessCpuRet"), Json{{"pstThread", {{{"acName", "a"}}, {{"acName", "b"}}}}});
    auto message = Encode(record);
    const auto notes = Explain(record.GetType(), message).notes;
    const auto count = std::find_if(notes.begin(), notes.end(), [](const Note &note) {
        return note.path == "pstThread[1].acName" && note.text == "count: 32";
    });
    ASSERT_NE(count, notes.end());
    message.at(static_cast<size_t>(count->at)) = 31;
    const auto refusal = Explain(record.GetType(), message).refusal;
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->check, Check::kFixedCount);
    EXPECT_EQ(refusal->text,
              "byte " + std::to_string(count->at) + ", pstThread[1].acName: the count is 31, expected 32");
}

// The bytes of the regular form and the fixed form without its gaps are all of them something.
TEST(Notes, CoverEveryByteThatIsWritten) {
    for (const GoldenMessage &golden : Golden("accepted")) {
        std::vector<bool> covered(golden.wire.size());
        for (const Note &note : Explain(*golden.type, golden.wire).notes) {
            for (uint64_t i = note.at; i < note.at + note.size; ++i) {
                covered.at(static_cast<size_t>(i)) = true;
            }
        }
        std::vector<bool> written(golden.wire.size(), golden.json["form"] == "regular");
        for (const Json &range : golden.json.value("written", Json::array())) {
            std::fill(written.begin() + range[0].get<int>(), written.begin() + range[1].get<int>(), true);
        }
        EXPECT_EQ(covered, written) << golden.type->name;
    }
}

TEST(Notes, ReadAsADump) {
    const auto message = ResultMessage();
    EXPECT_EQ(DumpText(Explain(*FindType("Result"), message), message),
              "       0      4  0a 00 00 00                 root offset: the table is at 10\n"
              "       4      2  06 00                       vtable of Result: 6 bytes, 1 slots\n"
              "       6      2  08 00                       object length 8, which no reader checks\n"
              "       8      2  04 00                       slot 0, uiResult: at 10 + 4\n"
              "      10      4  06 00 00 00                 table of Result: its vtable is 6 bytes before, at 4\n"
              "      14      4  07 00 00 00                 uiResult = 7\n");
}

} // namespace
} // namespace host::describe
