// Documents: what they hold, how they are written, and what is said of those that are not as expected.
#include "host/store/document.h"

#include <functional>

#include <gtest/gtest.h>

namespace {

using host::Document;

const Document kSettings = Document::Object{{"on", true},   {"limit", 900},   {"shift", -60},
                                            {"share", 0.5}, {"name", "a\"b"}, {"list", Document::Array{1, nullptr}}};

std::string ErrorOf(const std::function<void()> &action) {
    try {
        action();
    } catch (const host::DocumentError &error) {
        return error.what();
    }
    return "none";
}

TEST(Document, GivesBackWhatWasPutIn) {
    EXPECT_EQ(kSettings.Get<bool>("on"), true);
    EXPECT_EQ(kSettings.Get<uint16_t>("limit"), 900);
    EXPECT_EQ(kSettings.Get<int8_t>("shift"), -60);
    EXPECT_EQ(kSettings.Get<double>("share"), 0.5);
    EXPECT_EQ(kSettings.Get<double>("shift"), -60.0);
    EXPECT_EQ(kSettings.Get<std::string>("name"), "a\"b");
    EXPECT_EQ(kSettings.ArrayAt("list").size(), 2);
    EXPECT_EQ(kSettings.At("list").Get<uint64_t>(0), 1);
    EXPECT_TRUE(kSettings.At("list").At(1).IsNull());
    EXPECT_EQ(kSettings.Find("none"), nullptr);
    EXPECT_EQ(kSettings.Find("on"), &kSettings.At("on"));
    EXPECT_EQ(Document(INT64_MIN).As<int64_t>(), INT64_MIN);
    EXPECT_EQ(Document(UINT64_MAX).As<uint64_t>(), UINT64_MAX);
}

TEST(Document, IsWrittenWithSortedKeys) {
    EXPECT_EQ(kSettings.Dump(), R"({"limit":900,"list":[1,null],"name":"a\"b","on":true,"share":0.5,"shift":-60})");
    EXPECT_EQ((Document::Object{{"b", Document::Array{}}, {"a", Document::Object{}}, {"c", 1}}),
              Document::Parse("{\"c\": 1, \"a\": {}, \"b\": []}").AsObject());
    EXPECT_EQ(Document(Document::Object{{"a", Document::Array{"b"}}}).Dump(1), "{\n \"a\": [\n  \"b\"\n ]\n}");
    EXPECT_EQ(Document().Dump(), "null");
}

TEST(Document, IsReadAsItWasWritten) {
    const Document numbers = Document::Array{INT64_MIN, -1, 0, INT64_MAX, UINT64_MAX, 0.1, 1e300, 2.0};
    for (const Document &document : {kSettings, numbers, Document(), Document("text"), Document(false)}) {
        EXPECT_EQ(Document::Parse(document.Dump()), document) << document.Dump();
        EXPECT_EQ(Document::Parse(document.Dump(1)), document) << document.Dump();
    }
}

TEST(Document, SaysWhatIsNotAsExpected) {
    EXPECT_EQ(ErrorOf([] {
                  Document(Document::Object{{"a", 1}}).At("b");
              }),
              "expected an object with \"b\", found {\"a\":1}");
    EXPECT_EQ(ErrorOf([] { Document(std::string(1000, 'x')).As<bool>(); }),
              "expected true or false, found \"" + std::string(59, 'x') + "...");
    EXPECT_EQ(ErrorOf([] { Document(std::string(58, 'x')).As<bool>(); }),
              "expected true or false, found \"" + std::string(58, 'x') + "\"");
    EXPECT_EQ(ErrorOf([] { kSettings.At("on").At("key"); }), "expected an object with \"key\", found true");
    EXPECT_EQ(ErrorOf([] { kSettings.At("on").Find("key"); }), "expected an object, found true");
    EXPECT_EQ(ErrorOf([] { kSettings.At("list").At(2); }), "expected an array of at least 3, found [1,null]");
    EXPECT_EQ(ErrorOf([] { kSettings.ArrayAt("name"); }), "\"name\": expected an array, found \"a\\\"b\"");
    EXPECT_EQ(ErrorOf([] { kSettings.Get<bool>("limit"); }), "\"limit\": expected true or false, found 900");
    EXPECT_EQ(ErrorOf([] { kSettings.Get<std::string>("limit"); }), "\"limit\": expected a string, found 900");
    EXPECT_EQ(ErrorOf([] { kSettings.Get<double>("on"); }), "\"on\": expected a number, found true");
    EXPECT_EQ(ErrorOf([] { kSettings.At("list").At(1).As<bool>(); }), "expected true or false, found null");
}

TEST(Document, RefusesNumbersOutOfRange) {
    EXPECT_EQ(ErrorOf([] { kSettings.Get<uint8_t>("limit"); }),
              "\"limit\": expected an integer from 0 to 255, found 900");
    EXPECT_EQ(ErrorOf([] { kSettings.Get<uint64_t>("shift"); }),
              "\"shift\": expected an integer from 0 to 18446744073709551615, found -60");
    EXPECT_NE(ErrorOf([] { kSettings.Get<int32_t>("share"); }), "none");
    EXPECT_NE(ErrorOf([] { Document(UINT64_MAX).As<int64_t>(); }), "none");
    EXPECT_NE(ErrorOf([] { Document(-129).As<int8_t>(); }), "none");
    EXPECT_EQ(Document(255).As<uint8_t>(), 255);
    EXPECT_EQ(Document(-128).As<int8_t>(), -128);
}

TEST(Document, RefusesWhatIsNoJson) {
    for (const char *text : {"", "{", "[1,]", "{\"a\"}", "nul", "{} {}", "\"\xFF\"", "NaN"}) {
        EXPECT_NE(ErrorOf([&] { Document::Parse(text); }), "none") << text;
    }
    EXPECT_NE(ErrorOf([] { Document("\xFF").Dump(); }), "none");
}

TEST(Document, RefusesWhatIsNestedTooDeep) {
    const auto nested = [](size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
    EXPECT_EQ(Document::Parse(nested(64)).Dump(), nested(64));
    EXPECT_EQ(ErrorOf([&] { Document::Parse(nested(65)); }), "it is nested more than 64 deep");
    EXPECT_NE(ErrorOf([&] { Document::Parse(nested(1'000'000)); }), "none");
}

} // namespace
