// Requests as words.
#include "host/describe/stated.h"

#include <gtest/gtest.h>

#include "host/meaning/check.h"
#include "tests/host/zone.h"

namespace host::describe {
namespace {

std::string NoFile(const std::string &name) {
    ADD_FAILURE() << "nobody asked for " << name;
    return "";
}

using Words = std::vector<std::string>;

Json Stated(const char *method, const Words &words, const ReadFile &read = NoFile) {
    return FromWords(words, *FindMethod(method)->meaning->request, read);
}

std::string ErrorOf(const char *method, const Words &words) {
    try {
        return Stated(method, words).dump();
    } catch (const JsonError &error) {
        return error.what();
    }
}

Words Missing(const char *method, const Words &words) {
    return MissingMembers(Stated(method, words), *FindMethod(method)->meaning->request);
}

TEST(Stated, WordsAreMembersByEitherName) {
    const Json expected{{"uiValue1", 900}, {"uiValue2", 800}, {"uiValue3", 10}};
    EXPECT_EQ(Stated("SysOvLoadCpuThresholdSet", {"begins-at=90%", "ends-below=800", "must-last=10s"}), expected);
    EXPECT_EQ(Stated("SysOvLoadCpuThresholdSet", {"uiValue1=900", "ends_below=80%", "must_last_us=10s"}), expected);
    EXPECT_EQ(Stated("SysOvLoadCpuThresholdSet", {}), Json::object());
}

TEST(Stated, PathsLeadIntoRecords) {
    EXPECT_EQ(Stated("SetTimezone", {"zone.name=CET-1", "stTimezone.offset=-60"}),
              (Json{{"stTimezone", {{"szTimezoneName", "CET-1"}, {"uiTimezoneOffset", 4'294'967'236}}}}));
    EXPECT_EQ(Stated("SetDst", {"rule.start.month=3"})["stDst"]["stDstStart"]["ucMonth"], 3);
}

TEST(Stated, ATimeIsOneValue) {
    const ZoneOfTest zone("CET-1");
    const Json gmt = Stated("SetGmt", {"time=2026-11-21T12:00:00+01:00"})["stTime"];
    EXPECT_EQ(gmt["ucHour"], 11);
    EXPECT_EQ(gmt["ucWeek"], 6);
    EXPECT_EQ(Stated("SetLocalTime", {"time=2026-11-21T12:00:00Z"})["stTime"]["ucHour"], 13);
}

TEST(Stated, ArraysAreListsThatAreFilledUp) {
    const Json addresses = Stated("GetCallStackFunction", {"addresses=0x401000,16"})["aullStackAddr"];
    EXPECT_EQ(addresses.size(), 32u);
    EXPECT_EQ(addresses[0], 0x401000);
    EXPECT_EQ(addresses[1], 16);
    EXPECT_EQ(addresses[2], 0);
    EXPECT_EQ(ErrorOf("GetCallStackFunction", {"addresses=1,x"}),
              "addresses (aullStackAddr): found x, expected a whole number, such as 12 or 0xc");
}

TEST(Stated, ATextMayComeFromAFile) {
    std::string asked;
    const auto read = [&](const std::string &name) {
        asked += name + ";";
        return std::string("worker\\x41\xFF");
    };
    const Json wire = Stated("ClearEnvAct", {"what=leak", "pattern=@file"}, read);
    std::string bytes = wire["acValue2"]["hex"];
    EXPECT_EQ(bytes.substr(0, 22), "776f726b65725c783431ff") << "its bytes as they are";
    EXPECT_EQ(bytes.size(), 100u) << "of the whole array";
    Stated("DBGCmdExecShow", {"command=-"}, [&](const std::string &name) { return asked += name, "help"; });
    EXPECT_EQ(asked, "file;-");
    EXPECT_EQ(Stated("ClearEnvAct", {"pattern=worker\\x41"})["acValue2"], "workerA");
    EXPECT_EQ(ErrorOf("PidIsOnline", {"process=@file"}),
              "process (uiPid): found @file, expected a whole number, such as 12 or 0xc");
}

TEST(Stated, ErrorsSayWhereAndWhatWasExpected) {
    EXPECT_EQ(ErrorOf("PidIsOnline", {"7"}), "found 7, expected NAME=VALUE or JSON");
    EXPECT_EQ(ErrorOf("PidIsOnline", {""}), "found nothing, expected NAME=VALUE or JSON");
    EXPECT_EQ(ErrorOf("PidIsOnline", {"=7"}), "found =7, expected NAME=VALUE or JSON");
    EXPECT_EQ(ErrorOf("PidIsOnline", {"process="}),
              "process (uiPid): found nothing, expected a whole number, such as 12 or 0xc");
    EXPECT_EQ(ErrorOf("PidIsOnline", {"proces=7"}),
              "proces: PidIsOnlineInput has no such member; did you mean process?");
    EXPECT_EQ(ErrorOf("PidIsOnline", {"process=7", "uiPid=7"}), "process (uiPid) is stated twice");
    EXPECT_EQ(ErrorOf("PidIsOnline", {"process.name=7"}), "process.name: process (uiPid) has no members to state");
    EXPECT_EQ(ErrorOf("SetTimezone", {"zone.ofset=7"}),
              "zone.ofset: Timezone has no such member; did you mean offset?");
    EXPECT_EQ(ErrorOf("SetTimezone", {"zone.offset=x"}),
              "zone.offset (uiTimezoneOffset): found x, expected a whole number, which may be negative");
    EXPECT_EQ(ErrorOf("SetTimezone", {"zone=CET"}),
              "zone (stTimezone): found \"CET\", expected the members of Timezone");
    EXPECT_EQ(ErrorOf("SetGmt", {"time=soon"}), "time (stTime): found soon, expected a time, such as "
                                                "2026-02-03T04:05:06+01:00, 2026-02-03 04:05:06, now or +1h");
    EXPECT_EQ(ErrorOf("ClearEnvAct", {"pattern=" + std::string(51, 'x')}),
              "pattern (acValue2): found 51 bytes, expected at most 50");
}

TEST(Stated, WhatHasNoDefaultIsMissing) {
    EXPECT_EQ(Missing("PidIsOnline", {}), Words{"process (uiPid)"});
    EXPECT_EQ(Missing("PidIsOnline", {"process=0"}), Words());
    EXPECT_EQ(Missing("SysOvLoadCpuThresholdSet", {}), Words()) << "0 means something";
    EXPECT_EQ(Missing("SetTimezone", {}), (Words{"zone.name (szTimezoneName)", "zone.offset (uiTimezoneOffset)"}));
    EXPECT_EQ(Missing("SetTimezone", {"zone.name=UTC"}), Words{"zone.offset (uiTimezoneOffset)"});
    EXPECT_EQ(Missing("SetDst", {}), Words{"rule.on (ucDstFlag)"}) << "on which the others depend";
    EXPECT_EQ(Missing("SetGmt", {}), Words{"time (stTime)"});
    EXPECT_EQ(Missing("GetHugePagesInfo", {}), Words());
}

TEST(Stated, EveryExampleIsARequest) {
    for (const Method &method : Methods()) {
        const meaning::Record &request = *method.meaning->request;
        const Json wire = FromWords(WordsOf(method.meaning->example), request, NoFile);
        EXPECT_EQ(MissingMembers(wire, request), Words()) << method.name;
        const Record record = FromJson(*method.request, wire);
        EXPECT_NO_THROW(meaning::Check(request, record.Data())) << method.name;
        const Json named = ToNamed(ToJson(record), request);
        EXPECT_EQ(ToJson(FromJson(*method.request, FromNamed(named, request))), ToJson(record)) << named;
    }
}

TEST(Stated, NamesArePathsOfWhatCanBeStated) {
    EXPECT_EQ(StatedNames(*FindMethod("SetTimezone")->meaning->request), (Words{"zone.name", "zone.offset"}));
    EXPECT_EQ(StatedNames(*FindMethod("SetGmt")->meaning->request), Words{"time"});
    for (const Method &method : Methods()) {
        for (const std::string &name : StatedNames(*method.meaning->request)) {
            const std::string error = ErrorOf(method.name, {name + "="});
            EXPECT_EQ(error.find("no such member"), error.npos) << method.name << ": " << error;
        }
    }
}

} // namespace
} // namespace host::describe
