// Messages and records made by another implementation of the format: what it wrote is written and read here, and what
// it refused is refused, in its words.
#include <gtest/gtest.h>

#include <fstream>
#include <set>

#include "tests/codec/platform.h"
#include "tests/codec/record.h"

namespace {
std::vector<Json> ReadVectors(const std::string &file) {
    std::ifstream stream(std::string(TEST_GOLDEN_DIR "/") + file);
    std::vector<Json> vectors;
    for (std::string line; std::getline(stream, line);) {
        vectors.push_back(Json::parse(line));
    }
    EXPECT_FALSE(vectors.empty()) << file << " is missing or empty";
    return vectors;
}

const std::vector<Json> &Accepted() {
    static const auto vectors = ReadVectors("accepted.jsonl");
    return vectors;
}

const std::vector<Json> &Rejected() {
    static const auto vectors = ReadVectors("rejected.jsonl");
    return vectors;
}

const Type &TypeOfVector(const Json &vector) {
    return FindType(vector.at("type").get<std::string>());
}

Bytes WireOf(const Json &vector) {
    return FromHex(vector.at("wire").get<std::string>());
}

// Calls check(type, vector) for each accepted vector of a form, and says which failed.
template <class Check>
void EachAccepted(const char *form, Check check) {
    size_t index = 0, checked = 0;
    for (const Json &vector : Accepted()) {
        ++index;
        if (vector.at("form") == form) {
            SCOPED_TRACE("accepted vector " + std::to_string(index) + " of type " +
                         vector.at("type").get<std::string>());
            check(TypeOfVector(vector), vector);
            ++checked;
        }
    }
    EXPECT_GT(checked, 0U);
    EXPECT_TRUE(PlatformTrace().misuse.empty()) << PlatformTrace().misuse.front();
}

// The function that logs for an element of the type's only vector of tables: the vectors call all element types
// "<parent>.element".
std::string ElementFunction(const Type &type) {
    std::set<std::string> names;
    for (const Slot &slot : SlotsOf(type)) {
        if (slot.kind == velto::Kind::kTableVector) {
            names.insert(FunctionName(*slot.table, "_unpack_non_root"));
        }
    }
    EXPECT_EQ(names.size(), 1U) << type.name << " has not exactly one element type";
    return names.empty() ? "" : *names.begin();
}

std::vector<LogRecord> ExpectedLog(const Type &type, const Json &vector) {
    const std::string unnamed = FunctionName(type, ".element_unpack_non_root");
    std::vector<LogRecord> log;
    for (const Json &record : vector.at("log")) {
        auto function = record.at("function").get<std::string>();
        log.push_back({function == unnamed ? ElementFunction(type) : function, record.at("code").get<uint32_t>(),
                       record.at("format").get<std::string>(), record.at("args")});
    }
    return log;
}

// Whether all that is logged is that a nested table has no room for four bytes.
bool IsNestedWithoutRoom(const std::vector<LogRecord> &log) {
    const std::string suffix = "_unpack_non_root";
    return log.size() == 1 && log[0].function.ends_with(suffix) && log[0].code == 22 &&
           log[0].format == "[VELTO]:Table offset(%u) is out of range(4 - %u)" &&
           log[0].args[0].get<uint32_t>() > log[0].args[1].get<uint32_t>() - 4;
}
} // namespace

TEST(Golden, RecordsEncodeToTheRegularFormByteForByte) {
    EachAccepted("regular", [](const Type &type, const Json &vector) {
        const Bytes wire = Encode(type, vector.at("record"));
        EXPECT_EQ(ToHex(wire.data(), wire.size()), vector.at("wire").get<std::string>());
    });
}

TEST(Golden, RecordsEncodeToTheFixedFormByteForByteAndNothingElseIsWritten) {
    EachAccepted("fixed", [](const Type &type, const Json &vector) {
        ASSERT_NE(type.packFixed, nullptr);
        EXPECT_EQ(type.fixedSize(), vector.at("size").get<uint32_t>());
        for (const uint8_t fill : {uint8_t{0xAA}, uint8_t{0x55}}) {
            const Bytes wire = WireOf(vector);
            Bytes expected(wire.size(), fill);
            for (const Json &range : vector.at("written")) {
                const auto start = range.at(0).get<ptrdiff_t>(), end = range.at(1).get<ptrdiff_t>();
                std::copy(wire.begin() + start, wire.begin() + end, expected.begin() + start);
            }
            EXPECT_EQ(EncodeFixed(type, vector.at("record"), fill), expected);
        }
    });
}

TEST(Golden, TypesHaveAFixedFormExactlyWhereThereAreVectorsOfIt) {
    std::set<std::string> fixed, regular;
    for (const Json &vector : Accepted()) {
        (vector.at("form") == "fixed" ? fixed : regular).insert(vector.at("type").get<std::string>());
    }
    for (const std::string &name : fixed) {
        EXPECT_NE(FindType(name).packFixed, nullptr) << name;
    }
    for (const std::string &name : regular) {
        const Type &type = FindType(name);
        EXPECT_TRUE(type.packFixed == nullptr || !type.owns) << name;
    }
}

TEST(Golden, MessagesDecodeToTheirRecordsMemberByMember) {
    for (const char *form : {"regular", "fixed"}) {
        EachAccepted(form, [](const Type &type, const Json &vector) {
            PlatformTrace().Clear();
            Decoded decoded(type, WireOf(vector));
            ASSERT_TRUE(decoded.Accepted());
            EXPECT_EQ(decoded.ToJson(), vector.at("record"));
            EXPECT_TRUE(PlatformTrace().log.empty());
            decoded.Release();
            EXPECT_TRUE(PlatformTrace().live.empty());
        });
    }
}

TEST(Golden, MalformedMessagesAreRefusedInTheSameWords) {
    size_t index = 0;
    for (const Json &vector : Rejected()) {
        SCOPED_TRACE("rejected vector " + std::to_string(++index) + " of type " + vector.at("type").get<std::string>());
        const Type &type = TypeOfVector(vector);
        PlatformTrace().Clear();
        const Decoded decoded(type, WireOf(vector));
        EXPECT_FALSE(decoded.Accepted());
        EXPECT_TRUE(PlatformTrace().live.empty());

        const std::vector<LogRecord> &log = PlatformTrace().log, expected = ExpectedLog(type, vector);
        // Such a table may be refused silently, or by its own decoder.
        const bool eitherWay =
            (log.empty() && IsNestedWithoutRoom(expected)) || (expected.empty() && IsNestedWithoutRoom(log));
        EXPECT_TRUE(log == expected || eitherWay) << "expected " << vector.at("log") << ", got " << log.size()
                                                  << (log.empty() ? "" : ": " + log[0].function + log[0].args.dump());
        const bool byRoot = !log.empty() && log[0].function == FunctionName(type, "_unpack");
        EXPECT_TRUE(byRoot ? decoded.IsUntouched() : decoded.IsZero()) << "the record is not as a refusal leaves it";
    }
    EXPECT_TRUE(PlatformTrace().misuse.empty());
}
