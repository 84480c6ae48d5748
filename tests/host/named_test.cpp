// JSON in the names of the meanings, there and back.
#include "host/describe/named.h"

#include <gtest/gtest.h>

#include <random>

#include "host/describe/escape.h"
#include "host/describe/moment.h"
#include "host/describe/named_units.h"
#include "host/osal/hex.h"
#include "tests/host/zone.h"

namespace host::describe {
namespace {

using meaning::Member;

const meaning::Record &Meaning(const char *type) {
    return *MeaningOf(*FindType(type));
}

// A record's JSON with some members, in names.
Json Named(const char *type, const char *wire) {
    return ToNamed(ToJson(FromJson(*FindType(type), ParseJson(wire))), Meaning(type));
}

Json Back(const char *type, const char *named) {
    return FromNamed(ParseJson(named), Meaning(type));
}

std::string ErrorOf(const char *type, const char *named) {
    try {
        return Back(type, named).dump();
    } catch (const JsonError &error) {
        return error.what();
    }
}

TEST(Named, KeysHaveTheUnit) {
    const Json json = Named("OsProcessCpuThread", R"({"ullValue3": 12300, "uiValue2": 125, "acName": "worker"})");
    EXPECT_EQ(json["cpu_time_us"], 12300);
    EXPECT_EQ(json["cpu_permille"], 125);
    EXPECT_EQ(json["name"], "worker");
    EXPECT_EQ(json["thread"], 0);
}

TEST(Named, NumbersAreInBaseUnits) {
    EXPECT_EQ(Named("SysOvLoadCpuThreshold", R"({"uiValue3": 10})")["must_last_us"], 10'000'000);
    EXPECT_EQ(Named("SysCpuStatProc", R"({"uiValue14": 3})")["resident_bytes"], 3072);
    EXPECT_EQ(Named("SysCpuStatProc", R"({"uiValue8": 4294967276})")["nice"], -20);
}

TEST(Named, NumbersThatNoDoubleHoldsAreText) {
    const auto time = [](const char *number) {
        return Named("ThreadCpu", (std::string("{\"ullValue4\": ") + number + "}").c_str())["cpu_time_us"];
    };
    EXPECT_EQ(time("9007199254740992"), 9'007'199'254'740'992);
    EXPECT_EQ(time("9007199254740993"), "9007199254740993");
    const Json beyond = Named("TopCpuOvloadThread", R"({"ullCpuTime": 18446744073709551615})");
    EXPECT_EQ(beyond["cpu_time_us"], "18446744073709551615 ms") << "in us it has more than 64 bits";
    EXPECT_EQ(FromNamed(beyond, Meaning("TopCpuOvloadThread"))["ullCpuTime"], UINT64_MAX);
    const Json exact = Named("TopCpuOvloadThread", R"({"ullCpuTime": 10000000000000000})");
    EXPECT_EQ(exact["cpu_time_us"], "10000000000000000000");
    EXPECT_EQ(FromNamed(exact, Meaning("TopCpuOvloadThread"))["ullCpuTime"], 10'000'000'000'000'000);
}

TEST(Named, TimesHaveTheirOffset) {
    const ZoneOfTest zone("CET-1");
    const char *const time = R"({"usYear":2026,"ucMonth":2,"ucDay":3,"ucHour":4,"ucMinute":5,"ucSecond":6})";
    const auto in = [&](const char *member) { return std::string("{\"") + member + "\":" + time + "}"; };
    EXPECT_EQ(Named("SetLocalTimeInput", in("stTime").c_str())["time"], "2026-02-03T04:05:06+01:00");
    EXPECT_EQ(Named("SetGmtInput", in("stTime").c_str())["time"], "2026-02-03T04:05:06Z");
    EXPECT_EQ(Named("SetGmtInput", "{}")["time"], Json());
    EXPECT_EQ(Named("SetGmtInput", R"({"stTime":{"usYear":2026,"ucMonth":13}})")["time"]["ucMonth"], 13) << "no date";
    EXPECT_EQ(Back("SetGmtInput", R"({"time":null})")["stTime"], Json::object());
    EXPECT_EQ(Back("SetGmtInput", R"({"time":"2026-02-03T04:05:06+01:00"})")["stTime"]["ucHour"], 3);
}

TEST(Named, TextsLoseNoByte) {
    std::string all;
    for (int byte = 1; byte < 256; ++byte) {
        all += static_cast<char>(byte);
    }
    all += "\\x41 \\\\x M\u00fcnchen \xF0\x9F\x90\x8D";
    for (const std::string &bytes : {all, std::string("\\x"), std::string("\\"), std::string("\xC3"), std::string()}) {
        EXPECT_EQ(Unescaped(Escaped(bytes)), bytes);
        EXPECT_NO_THROW(static_cast<void>(Json(Escaped(bytes)).dump())) << "no UTF-8";
    }
    EXPECT_EQ(Escaped("M\u00fcnchen"), "M\u00fcnchen");
    EXPECT_EQ(Escaped("a\xFF"), "a\\xff");
    EXPECT_EQ(Escaped("\\x41"), "\\x5cx41");
    EXPECT_EQ(Unescaped("\\xg1 \\x4"), "\\xg1 \\x4") << "no escape";
}

TEST(Named, RequestsTakeEitherForm) {
    const Json wire{{"uiValue1", 900}, {"uiValue2", 800}, {"uiValue3", 10}};
    for (const char *named : {R"({"begins-at":"90%","ends-below":800,"must-last":10})",
                              R"({"begins_at_permille":900,"ends_below":"80%","must_last_us":10000000})",
                              R"({"uiValue1":900,"ends-below":800,"must_last_us":"10000000"})"}) {
        EXPECT_EQ(Back("SysOvLoadCpuThreshold", named), wire) << named;
    }
    EXPECT_EQ(Back("SetTimezoneInput", R"({"zone":{"name":"CET-1","offset":-60}})"),
              (Json{{"stTimezone", {{"szTimezoneName", "CET-1"}, {"uiTimezoneOffset", 4'294'967'236}}}}));
    EXPECT_EQ(Back("SetTimezoneInput", R"({"stTimezone":{"offset":-60}})")["stTimezone"]["uiTimezoneOffset"],
              4'294'967'236);
    EXPECT_EQ(Back("OsProcessCpuRet", R"({"uiThreadNum":1,"threads":[{"cpu":"10%"}]})"),
              (Json{{"uiThreadNum", 1}, {"pstThread", {{{"uiValue2", 100}}}}}))
        << "a vector's count may be stated";
}

TEST(Named, ErrorsSayWhereAndWhatWasExpected) {
    EXPECT_EQ(ErrorOf("SysOvLoadCpuThreshold", R"({"begins_at_permile":1})"),
              "begins_at_permile: SysOvLoadCpuThreshold has no such member; did you mean begins_at_permille?");
    EXPECT_EQ(ErrorOf("SysOvLoadCpuThreshold", R"({"begins-at":1,"uiValue1":1})"),
              "begins-at (uiValue1) is stated twice");
    EXPECT_EQ(ErrorOf("SysOvLoadCpuThreshold", R"({"must_last_us":1500000})"),
              "must-last (uiValue3): found 1500000, expected a multiple of 1000000");
    EXPECT_EQ(ErrorOf("SetTimezoneInput", R"({"zone":{"offset":"east"}})"),
              "zone.offset (uiTimezoneOffset): found east, expected a whole number, which may be negative");
    EXPECT_EQ(ErrorOf("OsProcessCpuRet", R"({"threads":[{},{"cpu":"2s"}]})"),
              "threads[1].cpu (uiValue2): found 2s, expected a share, such as 90% or 900");
}

// Records of any type, whose values are of their kinds, with the least and the most of each.
class RandomRecord {
public:
    explicit RandomRecord(unsigned seed) : random_(seed) {}

    Json Of(const Type &type, const meaning::Record &meaning) {
        Json json = Json::object();
        for (size_t i = 0; i < type.slots.size(); ++i) {
            if (meaning.members[i].value.kind != meaning::Kind::kUnused) {
                json[type.slots[i].name] = Value(type.slots[i], meaning.members[i], meaning.inside[i]);
            }
        }
        return json;
    }

private:
    size_t Below(size_t end) { return static_cast<size_t>(random_() % end); }

    Json Value(const Slot &slot, const Member &member, const meaning::Record *inside) {
        switch (slot.kind) {
        case Kind::kScalar:
            return Number(slot.width, member);
        case Kind::kTable:
            return IsTime(member.value.kind) ? Time() : Of(*slot.table, *inside);
        case Kind::kString:
        case Kind::kBytes:
        case Kind::kByteVector:
            return Text(slot, member);
        default:
            return Array(slot, member, inside);
        }
    }

    Json Array(const Slot &slot, const Member &member, const meaning::Record *inside) {
        Json array = Json::array();
        const uint64_t count = velto::IsVectorKind(slot.kind) ? Below(4) : slot.length;
        while (array.size() < count) {
            array.push_back(slot.table == nullptr       ? Number(slot.width, member)
                            : IsTime(member.value.kind) ? Time()
                                                        : Of(*slot.table, *inside));
        }
        return array;
    }

    Json Number(uint32_t width, const Member &member) {
        const uint64_t most = MaxScalar(width);
        if (!member.value.choices.empty() && Below(2) == 0) {
            return member.value.choices[Below(member.value.choices.size())].value & most;
        }
        const uint64_t numbers[] = {0, 1, most, most - 1, random_() & most, Below(128)};
        return numbers[Below(std::size(numbers))];
    }

    Json Text(const Slot &slot, const Member &member) {
        if (IsTime(member.value.kind)) {
            for (const char *text : {"2024-02-29 23:59:58 +0100", "2024-02-29 23:59:58"}) {
                if (slot.kind != Kind::kBytes || strlen(text) <= slot.length) {
                    return text;
                }
            }
            return "20240229235958";
        }
        const size_t room = slot.kind == Kind::kBytes ? slot.length : 40;
        std::string bytes;
        for (size_t length = Below(room + 1); bytes.size() < length;) {
            constexpr std::string_view kSome = "ab\\x41\n \xC3\xBC\xFF\x01";
            bytes += Below(4) == 0 ? static_cast<char>(1 + Below(255)) : kSome[Below(kSome.size())];
        }
        if (slot.kind == Kind::kString && bytes.empty()) {
            return Below(2) == 0 ? Json() : Json("");
        }
        if (slot.kind == Kind::kBytes) {
            bytes.resize(slot.length);
        }
        return {{"hex", Hex({reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()})}};
    }

    Json Time() {
        if (Below(8) == 0) {
            return Json::object(); // none
        }
        const Moment when = MomentOf(
            std::chrono::system_clock::time_point(std::chrono::milliseconds(random_() % (200ULL * 365 * 86400 * 1000))),
            Zone::kGmt);
        return {{"usYear", when.year},       {"ucMonth", when.month},
                {"ucDay", when.day},         {"ucHour", when.hour},
                {"ucMinute", when.minute},   {"ucSecond", when.second},
                {"ucWeek", WeekdayOf(when)}, {"uiMillisecond", when.millisecond}};
    }

    std::mt19937_64 random_;
};

void ExpectRoundTrip(const Type &type, const meaning::Record &meaning, const Json &random) {
    const Record record = FromJson(type, random);
    const Json wire = ToJson(record), named = ToNamed(wire, meaning);
    const Record again = FromJson(type, FromNamed(ParseJson(named.dump()), meaning));
    EXPECT_EQ(ToJson(again), wire) << type.name << ": " << named.dump();
    EXPECT_EQ(Encode(again), Encode(record)) << type.name;
}

TEST(Named, RecordsOfAllMethodsGoThereAndBack) {
    const ZoneOfTest zone("CET-1");
    RandomRecord random(20261122);
    for (const Method &method : Methods()) {
        for (int i = 0; i < 20; ++i) {
            ExpectRoundTrip(*method.request, *method.meaning->request,
                            random.Of(*method.request, *method.meaning->request));
            if (method.response != nullptr) {
                ExpectRoundTrip(*method.response, *method.meaning->response,
                                random.Of(*method.response, *method.meaning->response));
            }
        }
    }
}

} // namespace
} // namespace host::describe
