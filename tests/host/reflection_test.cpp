// What a server says of its services, and what is made of it by who doesn't know them.
#include "host/answer/unit.h"

TARN_UNIT()

#include "host/describe/reflection.h"

#include <gtest/gtest.h>

#include <fstream>

#include "host/describe/explain.h"
#include "host/describe/named.h"
#include "host/meaning/groups_of_choices.h"
#include "host/meaning/reflect.h"
#include "newer_daemon.h"
#include "newer_types.h"

namespace host::describe {
namespace {

std::string Newer() {
    static constexpr const meaning::Service *kServices[] = {&newer::kDaemon};
    return meaning::Reflect(kServices);
}

std::vector<uint8_t> MessageOf(const Tarn_sys_diag_FanInfo &record) {
    using Codec = velto::Codec<Unit, Tarn_sys_diag_FanInfo>;
    std::vector<uint8_t> message(Codec::kPack(nullptr, &record));
    auto capacity = static_cast<uint32_t>(message.size());
    const VeltoOutBuf out{message.data(), &capacity};
    EXPECT_EQ(Codec::kPack(&out, &record), message.size());
    return message;
}

// ---- What arrives is what was there ----

void ExpectSame(const meaning::Value &read, const meaning::Value &value) {
    EXPECT_EQ(read.kind, value.kind);
    EXPECT_EQ(read.least, value.least);
    EXPECT_EQ(read.most, value.most);
    EXPECT_EQ(read.open, value.open);
    EXPECT_EQ(read.hasZero, value.hasZero);
    EXPECT_EQ(read.zeroStandsFor, value.zeroStandsFor);
    EXPECT_EQ(read.zero, value.zero);
    EXPECT_EQ(read.notAbove, value.notAbove);
    EXPECT_EQ(read.notBelow, value.notBelow);
    EXPECT_EQ(read.matters, value.matters);
    EXPECT_EQ(read.mattersAt, value.mattersAt);
    ASSERT_EQ(read.choices.size(), value.choices.size());
    for (size_t i = 0; i < value.choices.size(); ++i) {
        EXPECT_EQ(read.choices[i].value, value.choices[i].value);
        EXPECT_EQ(read.choices[i].name, value.choices[i].name);
        EXPECT_EQ(read.choices[i].sentence, value.choices[i].sentence);
    }
}

void ExpectSame(const meaning::Record &read, const meaning::Record &record) {
    ASSERT_STREQ(read.type, record.type);
    ASSERT_EQ(read.members.size(), record.members.size());
    for (size_t i = 0; i < record.members.size(); ++i) {
        SCOPED_TRACE(record.type + std::string(" ") + std::string(record.members[i].wire));
        EXPECT_EQ(read.members[i].wire, record.members[i].wire);
        EXPECT_EQ(read.members[i].name, record.members[i].name);
        EXPECT_EQ(read.members[i].sentence, record.members[i].sentence);
        ExpectSame(read.members[i].value, record.members[i].value);
        ASSERT_EQ(read.inside[i] == nullptr, record.inside[i] == nullptr);
        if (read.inside[i] != nullptr) {
            ExpectSame(*read.inside[i], *record.inside[i]);
        }
    }
}

void ExpectSame(const Type &read, const Type &type) {
    ASSERT_STREQ(read.name, type.name);
    EXPECT_EQ(read.hash, type.hash);
    ASSERT_EQ(read.slots.size(), type.slots.size());
    for (size_t i = 0; i < type.slots.size(); ++i) {
        EXPECT_STREQ(read.slots[i].name, type.slots[i].name);
        EXPECT_STREQ(read.slots[i].count, type.slots[i].count);
        EXPECT_EQ(KindText(read.slots[i]), KindText(type.slots[i])) << type.name;
    }
}

TEST(Reflection, AllServicesArriveAsTheyAre) {
    const Interface read(meaning::Reflect(Meanings()));
    ASSERT_EQ(read.Methods().size(), Methods().size());
    for (size_t i = 0; i < Methods().size(); ++i) {
        const Method &method = Methods()[i], &copy = read.Methods()[i];
        EXPECT_STREQ(copy.service, method.service);
        EXPECT_STREQ(copy.name, method.name);
        EXPECT_EQ(copy.index, method.index);
        EXPECT_EQ(copy.meaning->group, method.meaning->group);
        EXPECT_EQ(copy.meaning->duration, method.meaning->duration);
        EXPECT_EQ(copy.meaning->sentence, method.meaning->sentence);
        EXPECT_EQ(copy.meaning->example, method.meaning->example);
        ExpectSame(*copy.request, *method.request);
        ExpectSame(*copy.meaning->request, *method.meaning->request);
        ASSERT_EQ(copy.response == nullptr, method.response == nullptr);
        if (copy.response != nullptr) {
            ExpectSame(*copy.response, *method.response);
            ExpectSame(*copy.meaning->response, *method.meaning->response);
        }
    }
}

// A list that a program does not serve is ballast to it.
TEST(Reflection, AnAgentCarriesNoListButItsOwn) {
    std::ifstream file(TARN_AGENT_LIBRARY, std::ios::binary);
    const std::string library{std::istreambuf_iterator<char>(file), {}};
    for (const Method &method : Methods()) {
        const bool own = method.service == std::string_view(meaning::kAgent.name);
        const bool shared = std::ranges::any_of(meaning::kAgent.methods, [&](const meaning::Method *other) {
            return other->sentence.find(method.meaning->sentence) != std::string_view::npos;
        });
        EXPECT_EQ(library.find(method.meaning->sentence) != library.npos, own || shared) << method.name;
    }
}

// ---- Every choice of a list is one of a group ----

void ExpectInGroups(const meaning::Record &record) {
    for (size_t i = 0; i < record.members.size(); ++i) {
        for (const meaning::Choice &choice : record.members[i].value.choices) {
            EXPECT_TRUE(std::ranges::any_of(
                meaning::kChoiceGroups,
                [&](const meaning::ChoiceGroup &group) {
                    return std::ranges::any_of(group.choices, [&](const meaning::Choice &one) {
                        return one.value == choice.value && one.name == choice.name && one.sentence == choice.sentence;
                    });
                }))
                << record.type << " " << choice.name;
        }
        if (record.inside[i] != nullptr) {
            ExpectInGroups(*record.inside[i]);
        }
    }
}

TEST(ChoiceGroups, HaveWhatTheListsHave) {
    for (const Method &method : Methods()) {
        ExpectInGroups(*method.meaning->request);
        if (method.response != nullptr) {
            ExpectInGroups(*method.meaning->response);
        }
    }
}

// ---- A method that this program was not built with ----

TEST(Reflection, ARequestIsStatedByNames) {
    const Interface read(Newer());
    const Method *const method = read.FindMethod("TarnSysdiagTarnd.GetFanInfo");
    ASSERT_NE(method, nullptr);
    EXPECT_EQ(FindMethod("GetFanInfo"), nullptr);
    const Json wire =
        FromNamed(ParseJson(R"({"fan": 1, "order": "time", "room": "cellar"})"), *method->meaning->request);
    const std::vector<uint8_t> message = Encode(FromJson(*method->request, wire));
    Tarn_sys_diag_FanInput input{};
    ASSERT_NE((velto::Codec<Unit, Tarn_sys_diag_FanInput>::kUnpack(message.data(),
                                                                   static_cast<uint32_t>(message.size()), &input)),
              nullptr);
    EXPECT_EQ(input.uiFan, 1U);
    EXPECT_EQ(input.usFrom, 0U);
    EXPECT_EQ(input.ucOrder, 2U);
    EXPECT_STREQ(input.acRoom, "cellar");
}

TEST(Reflection, AReplyIsReadWithItsNames) {
    const Interface read(Newer());
    const Method *const method = read.FindMethod("GetFanInfo");
    ASSERT_NE(method, nullptr);
    const std::vector<uint8_t> message = MessageOf(newer::Fans());
    EXPECT_FALSE(Explain(*method->response, message, false).refusal);
    const auto record = Decode(*method->response, message);
    ASSERT_TRUE(record.has_value());
    const Json wire = ToJson(*record);
    const Json fan = ParseJson(R"({"acName": "front", "ullTime": 90000, "ucState": 82})");
    EXPECT_EQ(wire["pstFan"][0], fan);
    EXPECT_EQ(wire["astFirst"][0], fan);
    EXPECT_EQ(wire["aullTurns"], Json({7, 8, uint64_t{1} << 60}));
    EXPECT_EQ(wire["puiStep"], Json({100, 500, 1000}));
    EXPECT_EQ(wire["pucImage"], Json({{"hex", "0001ff"}}));
    EXPECT_EQ(wire["pcNote"], "two of them");
    EXPECT_EQ(Encode(*record).size(), message.size());
    const Json named = ToNamed(wire, *method->meaning->response);
    EXPECT_EQ(named["fans"].size(), 2U);
    EXPECT_EQ(named["fans"][1]["name"], "back");
    EXPECT_EQ(named["since"].get<std::string>().substr(0, 19), "2026-11-21T01:02:03");
    EXPECT_EQ(named["note"], "two of them");
}

TEST(Reflection, AKindThatOnlyNewerProgramsKnowIsPlain) {
    Json json = ParseJson(Newer());
    for (Json &record : json["records"]) {
        for (Json &member : record["members"]) {
            member["kind"] = "furlongs";
        }
    }
    json["more"] = "than is known here";
    const Interface read(json.dump());
    const Method *const method = read.FindMethod("GetFanInfo");
    ASSERT_NE(method, nullptr);
    const auto record = Decode(*method->response, MessageOf(newer::Fans()));
    ASSERT_TRUE(record.has_value());
    EXPECT_EQ(ToNamed(ToJson(*record), *method->meaning->response)["share"], 900);
}

// ---- Whoever says it may say anything ----

std::string RefusalOf(const std::string &text) {
    try {
        const Interface read(text);
        return "taken";
    } catch (const ReflectionError &error) {
        return error.what();
    }
}

constexpr std::string_view kNone = "not a description of services: ";

// The newer daemon's description, with another value in one place.
std::string With(const char *pointer, const Json &value) {
    Json json = ParseJson(Newer());
    json[Json::json_pointer(pointer)] = value;
    return json.dump();
}

std::string Without(const char *pointer, const char *member) {
    Json json = ParseJson(Newer());
    json[Json::json_pointer(pointer)].erase(member);
    return json.dump();
}

TEST(HostileReflection, IsRefusedWithWhatIsWrong) {
    struct Case {
        std::string text, why;
    };
    const Case cases[] = {
        {"", "not JSON"},
        {"[]", "it is [], expected an object"},
        {"{}", "it has no types"},
        {With("/types", 7), "types is 7, expected an array"},
        {With("/types/0", "x"), "types[0]: it is \"x\", expected an object"},
        {With("/types/0/name", "a b"), "types[0]: name is \"a b\", expected a name of letters, digits, _ and -"},
        {With("/types/0/name", "\x1b[2J"), "expected a line of text"},
        {With("/types/0/hash", -1), "types[0]: hash is -1, expected a whole number up to 4294967295"},
        {With("/types/0/hash", 1e300), "expected a whole number"},
        {With("/types/1/name", ParseJson(Newer())["types"][0]["name"]), "is there twice"},
        {Without("/types/0/slots/0", "width"), "types[0]: slots[0]: it has no width"},
        {With("/types/0/slots/0/kind", "unsupported"), "expected a kind of slot"},
        {With("/types/0/slots/0/kind", "vector"), "expected a kind of slot"},
        {With("/types/0/slots/0/kind", "bytes"), "expected those of a bytes"},
        {With("/types/0/slots/0/kind", "array64"), "expected those of a array64"},
        {With("/types/0/slots/0/kind", "byte-vector"), "expected those of a byte-vector"},
        {With("/types/0/slots/0/width", 3), "expected those of a scalar"},
        {With("/types/0/slots/0/width", 255), "expected those of a scalar"},
        {With("/types/0/slots/0/count", "uiNum"), "a member for its count or none"},
        {With("/records/0/type", "Nothing"), "records[0]: type is \"Nothing\", expected a type in front of it"},
        {With("/records/0/members", Json::array()), "it has 0 members"},
        {With("/records/0/inside", Json::array()), "and 0 inside"},
        {With("/records/0/members/0/wire", "uiOther"), "members[0]: wire is \"uiOther\", expected uiPid"},
        {With("/records/0/members/0/kind", "text"), "kind is \"text\", expected one that uiPid can hold, u32"},
        {With("/records/0/members/0/kind", "records"), "expected one that uiPid can hold"},
        {With("/records/0/members/0/choices", 3), "choices is 3, expected an array"},
        {With("/records/0/members/0/least", "1"), "least is \"1\", expected a whole number"},
        {With("/records/0/members/0/sentence", "a\nb"), "expected a line of text"},
        {With("/records/0/members/0/matters", "acName"), "refers to acName, expected a number of the same record"},
        {With("/records/0/members/0/matters", "uiPid"), "and so on in a circle"},
        {With("/services/0/methods/0/request", 99), "request is 99, expected the number of one of the"},
        {With("/services/0/methods/0/request", -1), "request is -1"},
        {With("/services/0/methods/0/long", 1), "long is 1, expected true or false"},
        {With("/services/0/methods/0/response", "x"), "response is \"x\""},
        {Without("/services/0", "methods"), "services[0]: it has no methods"},
    };
    for (const Case &one : cases) {
        const std::string found = RefusalOf(one.text);
        EXPECT_TRUE(found.starts_with(kNone)) << found << "\n" << one.why;
        EXPECT_NE(found.find(one.why), std::string::npos) << found << "\n" << one.why;
        EXPECT_LT(found.size(), 300U);
    }
}

Json SlotJson(const char *member, const char *kind, uint32_t width, uint32_t length, const Json &type) {
    return {{"member", member}, {"count", nullptr}, {"kind", kind},
            {"width", width},   {"length", length}, {"type", type}};
}

std::string WithTypes(const Json &types) {
    return Json{{"types", types}, {"records", Json::array()}, {"services", Json::array()}}.dump();
}

Json TypeJson(const std::string &name, const Json &slots) {
    return {{"name", name}, {"hash", 1}, {"slots", slots}};
}

TEST(HostileReflection, ATypeThatHoldsItselfIsRefused) {
    const Json own = TypeJson("Own", Json::array({SlotJson("stOwn", "table", 0, 0, "Own")}));
    EXPECT_NE(RefusalOf(WithTypes(Json::array({own}))).find("type is \"Own\", expected a type in front of it"),
              std::string::npos);
}

TEST(HostileReflection, TypesAreNeitherDeepNorLarge) {
    Json types = Json::array({TypeJson("T0", Json::array())});
    const auto add = [&types](const char *kind, uint32_t length) {
        const Json last = types.back()["name"];
        types.push_back(
            TypeJson("T" + std::to_string(types.size()), Json::array({SlotJson("st", kind, 0, length, last)})));
    };
    for (int i = 0; i < 16; ++i) {
        add("table", 0);
    }
    EXPECT_EQ(RefusalOf(WithTypes(types)), "taken");
    add("table", 0);
    EXPECT_NE(RefusalOf(WithTypes(types)).find("17 deep"), std::string::npos);

    types = Json::array({TypeJson("T0", Json::array({SlotJson("ac", "bytes", 1, 0xFFF0, {})}))});
    EXPECT_EQ(RefusalOf(WithTypes(types)), "taken");
    add("run", 0xFFFF);
    EXPECT_NE(RefusalOf(WithTypes(types)).find("bytes, expected at most 65535"), std::string::npos);

    Json slots = Json::array();
    for (int i = 0; i < 257; ++i) {
        slots.push_back(SlotJson("st", "table", 0, 0, "T0"));
    }
    types = Json::array({TypeJson("T0", Json::array()), TypeJson("Wide", slots)});
    EXPECT_NE(RefusalOf(WithTypes(types)).find("257 of tables"), std::string::npos);
}

TEST(HostileReflection, DeepJsonIsRefused) {
    for (const size_t depth : {100U, 10'000U, 1'000'000U}) {
        EXPECT_NE(RefusalOf(std::string(depth, '[') + std::string(depth, ']')).find("nested deeper than 64 levels"),
                  std::string::npos);
    }
}

// Nothing else than an error, or a description that can be used.
TEST(HostileReflection, AnyByteMayBeAnother) {
    constexpr std::string_view kOthers = "09\",x[";
    const std::string text = Newer();
    const std::vector<uint8_t> message = MessageOf(newer::Fans());
    for (size_t at = 0, taken = 0; at < text.size(); at += 4, ++taken) {
        std::string changed = text;
        changed[at] = kOthers[taken % kOthers.size()];
        try {
            const Interface read(changed);
            for (const Method &method : read.Methods()) {
                if (const auto record = method.response != nullptr ? Decode(*method.response, message) : std::nullopt) {
                    ToNamed(ToJson(*record), *method.meaning->response);
                }
            }
        } catch (const ReflectionError &) {
        }
    }
}

} // namespace
} // namespace host::describe
