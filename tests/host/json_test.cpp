#include "host/describe/json.h"

#include <gtest/gtest.h>

#include "host/osal/accounting.h"
#include "host/osal/hex.h"
#include "host/osal/text.h"
#include "tests/host/golden.h"

namespace host::describe {
namespace {

// The golden records hold strings, byte arrays and byte vectors as bare hex.
Json FromGolden(const Type &type, const Json &record) {
    Json json = Json::object();
    for (const Slot &slot : type.slots) {
        const Json &value = record.at(slot.name);
        if (slot.kind == Kind::kString || slot.kind == Kind::kBytes || slot.kind == Kind::kByteVector) {
            json[slot.name] = value.is_null() ? Json() : Json{{"hex", value}};
        } else if (slot.kind == Kind::kTable) {
            json[slot.name] = FromGolden(*slot.table, value);
        } else if (slot.table != nullptr && !value.is_null()) {
            json[slot.name] = Json::array();
            for (const Json &element : value) {
                json[slot.name].push_back(FromGolden(*slot.table, element));
            }
        } else {
            json[slot.name] = value;
        }
    }
    return json;
}

Form FormOf(const GoldenMessage &golden) {
    return golden.json["form"] == "fixed" ? Form::kFixed : Form::kRegular;
}

TEST(GoldenJson, RecordsEncodeToTheirMessages) {
    for (const GoldenMessage &golden : Golden("accepted")) {
        const Record record = FromJson(*golden.type, FromGolden(*golden.type, golden.json["record"]));
        EXPECT_EQ(Hex(Encode(record, FormOf(golden))), Hex(golden.wire)) << golden.type->name;
    }
    EXPECT_EQ(MemoryTotal().liveBlocks, 0u);
}

TEST(GoldenJson, MessagesGoThroughTextAndBack) {
    for (const GoldenMessage &golden : Golden("accepted")) {
        const auto decoded = Decode(*golden.type, golden.wire);
        ASSERT_TRUE(decoded) << golden.type->name;
        const Record record = FromJson(*golden.type, ParseJson(ToJson(*decoded).dump()));
        EXPECT_EQ(Hex(Encode(record, FormOf(golden))), Hex(golden.wire)) << golden.type->name;
    }
    EXPECT_EQ(MemoryTotal().liveBlocks, 0u);
}

Json Round(const char *type, const char *text) {
    return ToJson(FromJson(*FindType(type), ParseJson(text)));
}

std::string ErrorOf(const char *type, const char *text) {
    const Type *const found = FindType(type);
    try {
        FromJson(*found, ParseJson(text));
    } catch (const JsonError &error) {
        EXPECT_EQ(MemoryTotal().liveBlocks, 0u) << "what had been read of " << text << " is lost";
        return error.what();
    }
    return "no error";
}

TEST(Json, WhatIsNotGivenIsZeroOrAbsent) {
    EXPECT_EQ(Round("DiagResult", "{}").dump(), R"({"uiResult":0,"uiValue":0,"szText":null})");
    EXPECT_EQ(Round("OsProcessCpuRet", "{}").dump(), R"({"pstThread":[],"uiValue1":0})");
    EXPECT_EQ(Round("OsProcessCpuRet", R"({"pstThread":null})").dump(), R"({"pstThread":[],"uiValue1":0})");
    EXPECT_EQ(Round("None", "{}").dump(), "{}");
}

TEST(Json, NumbersAreExact) {
    const auto json = Round("OsProcessCpuThread", R"({"ullValue3":18446744073709551615,"uiValue1":4294967295})");
    EXPECT_EQ(json["ullValue3"].dump(), "18446744073709551615");
    EXPECT_EQ(json["uiValue1"].dump(), "4294967295");
    EXPECT_EQ(Round("OsProcessCpuThread", R"({"ullValue3":9007199254740993})")["ullValue3"].dump(), "9007199254740993");
}

TEST(Json, AnEmptyStringIsNotAnAbsentOne) {
    EXPECT_EQ(Round("DiagResult", R"({"szText":""})")["szText"].dump(), R"("")");
    EXPECT_EQ(Round("DiagResult", R"({"szText":null})")["szText"].dump(), "null");
}

TEST(Json, BytesAreTextWhereTheyAreText) {
    const auto name = [](const char *value) {
        return Round("Timezone", (std::string("{\"szTimezoneName\":") + value + "}").c_str())["szTimezoneName"].dump();
    };
    const std::string zeros(2 * 126, '0');
    EXPECT_EQ(name(R"("UTC")"), R"("UTC")");
    EXPECT_EQ(name("\"M\u00fcnchen\""), "\"M\u00fcnchen\"");
    EXPECT_EQ(name(("{\"hex\":\"4142" + zeros + "\"}").c_str()), R"("AB")");
    EXPECT_EQ(name(("{\"hex\":\"0041" + zeros + "\"}").c_str()), "{\"hex\":\"0041" + zeros + "\"}");
    EXPECT_EQ(name(("{\"hex\":\"c328" + zeros + "\"}").c_str()), "{\"hex\":\"c328" + zeros + "\"}");
    EXPECT_EQ(name(("\"" + std::string(128, 'x') + "\"").c_str()), "\"" + std::string(128, 'x') + "\"");
}

TEST(Json, TextIsPrintableUtf8) {
    EXPECT_TRUE(IsText(""));
    EXPECT_TRUE(IsText("tab\t, line\r\n"));
    EXPECT_TRUE(IsText("\xF0\x9F\x90\x8D"));
    for (const char *bytes :
         {"\x1B[31m", "\x7F", "\xC2\x85", "\xC0\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xE2\x82", "\x80"}) {
        EXPECT_FALSE(IsText(bytes)) << Hex({reinterpret_cast<const uint8_t *>(bytes), strlen(bytes)});
    }
}

TEST(Json, AVectorsCountMayBeGivenAndMustAgree) {
    EXPECT_EQ(Round("OsProcessCpuRet", R"({"uiThreadNum":2,"pstThread":[{},{"acName":"a"}]})")["pstThread"].size(), 2u);
    EXPECT_EQ(ErrorOf("OsProcessCpuRet", R"({"uiThreadNum":3,"pstThread":[{}]})"),
              "uiThreadNum: found 3, expected 1, the number of elements of pstThread");
    EXPECT_EQ(ErrorOf("OsProcessCpuRet", R"({"uiThreadNum":1})"),
              "uiThreadNum: found 1, expected 0, the number of elements of pstThread");
}

TEST(JsonErrors, NameTheUnknownFieldAndTheClosest) {
    EXPECT_EQ(ErrorOf("PidIsOnlineInput", R"({"uiPdi":1})"),
              "uiPdi: PidIsOnlineInput has no such field; did you mean uiPid?");
    EXPECT_EQ(ErrorOf("Dst", R"({"stDstStart":{"ucMont":1}})"),
              "stDstStart.ucMont: Systime has no such field; did you mean ucMonth?");
    EXPECT_EQ(ErrorOf("None", R"({"x":1})"), "x: None has no such field");
}

TEST(JsonErrors, NumbersHaveLimits) {
    EXPECT_EQ(ErrorOf("Dst", R"({"stDstStart":{"ucMonth":256}})"),
              "stDstStart.ucMonth: found 256, expected a whole number from 0 to 255");
    EXPECT_EQ(ErrorOf("Systime", R"({"usYear":65536})"),
              "usYear: found 65536, expected a whole number from 0 to 65535");
    EXPECT_EQ(ErrorOf("PidIsOnlineInput", R"({"uiPid":-1})"),
              "uiPid: found -1, expected a whole number from 0 to 4294967295");
    EXPECT_EQ(ErrorOf("PidIsOnlineInput", R"({"uiPid":4294967296})"),
              "uiPid: found 4294967296, expected a whole number from 0 to 4294967295");
    EXPECT_EQ(ErrorOf("PidIsOnlineInput", R"({"uiPid":1.5})"),
              "uiPid: found 1.5, expected a whole number from 0 to 4294967295");
    EXPECT_EQ(ErrorOf("OsProcessCpuThread", R"({"ullValue3":18446744073709551616})"),
              "ullValue3: found 1.8446744073709552e+19, expected a whole number from 0 to 18446744073709551615");
    EXPECT_EQ(ErrorOf("PidIsOnlineInput", R"({"uiPid":"1"})"),
              "uiPid: found \"1\", expected a whole number from 0 to 4294967295");
}

TEST(JsonErrors, WrongTypes) {
    EXPECT_EQ(ErrorOf("Dst", R"({"stDstStart":3})"),
              "stDstStart: found 3, expected an object with the fields of Systime");
    EXPECT_EQ(ErrorOf("Dst", "[]"), "the message: found an array of 0, expected an object with the fields of Dst");
    EXPECT_EQ(ErrorOf("DiagResult", R"({"szText":true})"),
              "szText: found true, expected text, {\"hex\": \"...\"} or null");
    EXPECT_EQ(ErrorOf("OsProcessCpuRet", R"({"pstThread":{}})"),
              "pstThread: found an object, expected an array or null");
    EXPECT_EQ(ErrorOf("OsProcessCpuRet", R"({"pstThread":[{"acName":"a"},{"acName":7}]})"),
              "pstThread[1].acName: found 7, expected text or {\"hex\": \"...\"}");
}

TEST(JsonErrors, TextThatIsTooLongAndHexThatIsNotWhole) {
    EXPECT_EQ(ErrorOf("AgentRegInfoInput", (R"({"szAgentName":")" + std::string(33, 'a') + "\"}").c_str()),
              "szAgentName: found 33 bytes, expected text of at most 32 bytes");
    EXPECT_EQ(ErrorOf("AgentRegInfoInput", R"({"szAgentName":{"hex":"41"}})"),
              "szAgentName: found 1 bytes, expected 32 bytes");
    EXPECT_EQ(ErrorOf("AgentRegInfoInput", R"({"szAgentName":{"hex":"4"}})"),
              "szAgentName.hex: found \"4\", expected an even number of hex digits");
    EXPECT_EQ(ErrorOf("DiagResult", R"({"szText":"a\u0000b"})"),
              "szText: found \"a\\u0000b\", expected text without a 0 byte, which would end it");
}

TEST(JsonErrors, FixedArraysAreWhole) {
    EXPECT_EQ(ErrorOf("TopCpuOvloadThreadCallstackRet", R"({"pstNothing":1})").substr(0, 11), "pstNothing:");
    for (const Type &type : Types()) {
        for (const Slot &slot : type.slots) {
            if (slot.kind == Kind::kArray64 || slot.kind == Kind::kTableRun) {
                const std::string text = "{\"" + std::string(slot.name) + "\":[]}";
                EXPECT_EQ(ErrorOf(type.name, text.c_str()), std::string(slot.name) +
                                                                ": found an array of 0, expected an array of " +
                                                                std::to_string(slot.length));
            }
        }
    }
}

TEST(JsonErrors, TextThatIsNoJson) {
    EXPECT_EQ(ErrorOf("None", "{").substr(0, 30), "not JSON: parse error at line ");
    EXPECT_EQ(ErrorOf("PidIsOnlineInput", R"({"uiPid":1,"uiPid":2})"), "the key \"uiPid\" stands twice in one object");
    EXPECT_EQ(ErrorOf("OsProcessCpuRet", R"({"pstThread":[{"uiValue1":1},{"uiValue1":2}]})"), "no error");
}

TEST(Hex, TakesOnlyWholePairsOfDigits) {
    EXPECT_EQ(FromHex("00fFA9"), (std::vector<uint8_t>{0x00, 0xFF, 0xA9}));
    EXPECT_EQ(FromHex(""), std::vector<uint8_t>());
    for (const char *text : {"0", "0g", " 0", "-1", "@@", "``"}) {
        EXPECT_FALSE(FromHex(text)) << text;
    }
}

} // namespace
} // namespace host::describe
