#include "host/describe/named.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "host/describe/moment.h"
#include "host/describe/quantity.h"
#include "host/meaning/unit.h"
#include "host/osal/text.h"

namespace host::describe {

namespace {

using meaning::Choice;
using meaning::Member;
using meaning::Value;

constexpr uint64_t kExact = uint64_t{1} << 53; // every whole number up to it is a double

// The unit of a kind in JSON, and how many of them one of the wire's unit is.
struct Base {
    const char *suffix;
    uint64_t scale;
};

Base BaseOf(meaning::Kind kind) {
    switch (kind) {
    case meaning::Kind::kPermille:
        return {"_permille", 1};
    case meaning::Kind::kPercent:
        return {"_percent", 1};
    case meaning::Kind::kThousandths:
        return {"_thousandths", 1};
    case meaning::Kind::kKib:
        return {"_bytes", 1024};
    case meaning::Kind::kMib:
        return {"_bytes", 1024 * 1024};
    case meaning::Kind::kBytes:
        return {"_bytes", 1};
    case meaning::Kind::kNanoseconds:
        return {"_ns", 1};
    case meaning::Kind::kMicroseconds:
        return {"_us", 1};
    case meaning::Kind::kMilliseconds:
        return {"_us", 1000};
    case meaning::Kind::kSeconds:
        return {"_us", 1'000'000};
    case meaning::Kind::kMinutes:
        return {"_min", 1};
    case meaning::Kind::kHours:
        return {"_h", 1};
    default:
        return {"", 1};
    }
}

struct State {
    char letter;
    std::string_view word;
};
constexpr State kStates[] = {{'R', "running"}, {'S', "sleeping"}, {'D', "waiting-for-device"},
                             {'T', "stopped"}, {'t', "traced"},   {'Z', "zombie"},
                             {'X', "dead"},    {'I', "idle"},     {'P', "parked"}};

bool IsTime(meaning::Kind kind) {
    return kind == meaning::Kind::kLocalTime || kind == meaning::Kind::kGmtTime;
}

// ---- To names ----

Json NumberJson(uint64_t number) {
    return number > kExact ? Json(std::to_string(number)) : Json(number);
}

Json FlagsJson(const Value &value, uint64_t sum) {
    Json words = Json::array();
    for (const Choice &one : value.choices) {
        if (one.value != 0 && (sum & one.value) == one.value) {
            words.push_back(one.name);
            sum &= ~uint64_t{one.value};
        }
    }
    if (sum != 0) {
        words.push_back(sum);
    }
    return words;
}

Json LetterJson(uint64_t number) {
    const auto state = std::ranges::find(kStates, number, &State::letter);
    if (state != std::end(kStates)) {
        return state->word;
    }
    return number > ' ' && number < 0x7F ? Json(std::string(1, static_cast<char>(number))) : Json(number);
}

Json ErrnoJson(uint64_t number) {
    const char *const name = number <= INT32_MAX ? strerrorname_np(static_cast<int>(number)) : nullptr;
    return number == 0 ? Json("ok") : name != nullptr ? Json(name) : Json(number);
}

Json ScalarJson(const Value &value, uint64_t number) {
    switch (value.kind) {
    case meaning::Kind::kSwitch:
        return number > 1 ? Json(number) : Json(number == 1);
    case meaning::Kind::kChoice: {
        const auto choice = std::ranges::find(value.choices, number, &Choice::value);
        return choice != value.choices.end() ? Json(choice->name) : Json(number);
    }
    case meaning::Kind::kFlags:
        return FlagsJson(value, number);
    case meaning::Kind::kLetter:
        return LetterJson(number);
    case meaning::Kind::kErrno:
        return ErrnoJson(number);
    case meaning::Kind::kSigned:
        return static_cast<int32_t>(number);
    case meaning::Kind::kUnixTime:
        return number == 0
                   ? Json()
                   : Json(Rfc3339(MomentOf(std::chrono::system_clock::from_time_t(static_cast<time_t>(number)))));
    case meaning::Kind::kAddress:
        return fmt::format("{:#x}", number);
    default:
        return NumberJson(number * BaseOf(value.kind).scale);
    }
}

// Text whatever the bytes: those that are no UTF-8 are escaped.
std::string Escaped(std::string_view bytes) {
    std::string text;
    while (!bytes.empty()) {
        size_t length = 1;
        while (length <= 4 && length <= bytes.size() && !IsText(bytes.substr(0, length))) {
            ++length;
        }
        if (length <= 4 && length <= bytes.size()) {
            text += bytes.substr(0, length);
        } else {
            length = 1;
            text += fmt::format("\\x{:02x}", static_cast<uint8_t>(bytes.front()));
        }
        bytes.remove_prefix(length);
    }
    return text;
}

// What the JSON of the wire has for bytes: text, or {"hex": ...}.
std::string BytesOf(const Json &wire) {
    if (wire.is_string()) {
        return wire.get<std::string>();
    }
    const auto bytes = FromHex(wire["hex"].get_ref<const std::string &>());
    return {bytes->begin(), bytes->end()};
}

Json TextJson(const Value &value, const Json &wire) {
    if (wire.is_null() || value.kind == meaning::Kind::kBinary) {
        return wire;
    }
    std::string text = BytesOf(wire);
    text.erase(text.find_last_not_of('\0') + 1);
    if (IsTime(value.kind)) {
        const auto moment = ParseMoment(text);
        return text.empty() ? Json() : moment ? Json(Rfc3339(*moment)) : Json(Escaped(text));
    }
    return Escaped(text);
}

int Part(const Json &time, const char *member) {
    return time[member].get<int>();
}

Json TimeJson(const Json &time) {
    if (Part(time, "usYear") == 0) {
        return {};
    }
    return Rfc3339({Part(time, "usYear"), Part(time, "ucMonth"), Part(time, "ucDay"), Part(time, "ucHour"),
                    Part(time, "ucMinute"), Part(time, "ucSecond"), Part(time, "uiMillisecond")});
}

Json MemberJson(const Member &member, const Json &wire, const meaning::Record *inside) {
    const bool time = IsTime(member.value.kind);
    if (wire.is_object() && inside != nullptr) {
        return time ? TimeJson(wire) : ToNamed(wire, *inside);
    }
    if (wire.is_array()) {
        Json array = Json::array();
        for (const Json &element : wire) {
            array.push_back(inside != nullptr ? MemberJson(member, element, inside)
                                              : ScalarJson(member.value, element.get<uint64_t>()));
        }
        return array;
    }
    return wire.is_number() ? ScalarJson(member.value, wire.get<uint64_t>()) : TextJson(member.value, wire);
}

// ---- From names ----

[[noreturn]] void Fail(const Member &member, const std::string &found, const std::string &expected) {
    throw JsonError(fmt::format("{} ({}): found {}, expected {}", member.name, member.wire, found, expected));
}

Json MomentJson(const Moment &moment) {
    return {{"usYear", moment.year},       {"ucMonth", moment.month},
            {"ucDay", moment.day},         {"ucHour", moment.hour},
            {"ucMinute", moment.minute},   {"ucSecond", moment.second},
            {"ucWeek", WeekdayOf(moment)}, {"uiMillisecond", moment.millisecond}};
}

Json StatedTime(const Member &member, std::string_view text) {
    const auto moment = ParseStatedMoment(text, std::chrono::system_clock::now());
    if (!moment) {
        Fail(member, std::string(text), "a time, such as 2026-02-03T04:05:06+01:00, 2026-02-03 04:05:06, now or +1h");
    }
    return MomentJson(*moment);
}

// A number in the JSON's base unit, in the member's own.
Json Unscaled(const Member &member, const Json &number) {
    const uint64_t scale = BaseOf(member.value.kind).scale;
    if (!number.is_number_unsigned() || number.get<uint64_t>() % scale != 0) {
        return number.is_number_integer() && scale == 1
                   ? number
                   : (Fail(member, number.dump(),
                           fmt::format("a whole number of {}", meaning::NameOf(member.value.kind))),
                      Json());
    }
    return number.get<uint64_t>() / scale;
}

Json ParseText(const Member &member, std::string_view text, const meaning::Record *inside) {
    const meaning::Kind kind = member.value.kind;
    if (IsTime(kind) && inside != nullptr) {
        return StatedTime(member, text);
    }
    if (kind >= meaning::Kind::kText) {
        return std::string(text);
    }
    const auto state = std::ranges::find(kStates, text, &State::word);
    if (kind == meaning::Kind::kLetter && state != std::end(kStates)) {
        return static_cast<uint8_t>(state->letter);
    }
    try {
        return ParseQuantity(member.value, text);
    } catch (const QuantityError &error) {
        throw JsonError(fmt::format("{} ({}): {}", member.name, member.wire, error.what()));
    }
}

Json FlagsFromArray(const Member &member, const Json &words) {
    uint64_t sum = 0;
    for (const Json &word : words) {
        sum |= word.is_string() ? ParseText(member, word.get_ref<const std::string &>(), nullptr).get<uint64_t>()
                                : word.get<uint64_t>();
    }
    return sum;
}

// A value under a member's name (`keyed`: with its unit) as the wire has it.
Json WireJson(const Member &member, const Json &value, const meaning::Record *inside, bool keyed) {
    const meaning::Kind kind = member.value.kind;
    if (value.is_string()) {
        return ParseText(member, value.get_ref<const std::string &>(), inside);
    }
    if (value.is_boolean() && kind == meaning::Kind::kSwitch) {
        return value.get<bool>() ? 1 : 0;
    }
    if (value.is_array() && kind == meaning::Kind::kFlags) {
        return FlagsFromArray(member, value);
    }
    if (value.is_array() && inside != nullptr) {
        Json array = Json::array();
        for (const Json &element : value) {
            array.push_back(WireJson(member, element, inside, keyed));
        }
        return array;
    }
    if (value.is_object() && inside != nullptr) {
        return FromNamed(value, *inside);
    }
    if (value.is_number_integer() && kind == meaning::Kind::kSigned) {
        return static_cast<uint32_t>(value.get<int64_t>());
    }
    return value.is_number() && keyed ? Unscaled(member, value) : value;
}

std::string Underscored(std::string_view name) {
    std::string key(name);
    std::ranges::replace(key, '-', '_');
    return key;
}

const meaning::Record *InsideOf(const meaning::Record &meaning, const Member &member) {
    return meaning.inside[static_cast<size_t>(&member - meaning.members.data())];
}

std::vector<std::string_view> NamesOf(const meaning::Record &meaning) {
    std::vector<std::string_view> names;
    for (const Member &member : meaning.members) {
        names.push_back(member.name);
        names.push_back(member.wire);
    }
    return names;
}

} // namespace

std::string KeyOf(const Member &member) {
    return Underscored(member.name) + BaseOf(member.value.kind).suffix;
}

Json ToNamed(const Json &wire, const meaning::Record &meaning) {
    Json named = Json::object();
    for (size_t i = 0; i < meaning.members.size(); ++i) {
        const Member &member = meaning.members[i];
        if (member.value.kind != meaning::Kind::kUnused) {
            named[KeyOf(member)] = MemberJson(member, wire.at(std::string(member.wire)), meaning.inside[i]);
        }
    }
    return named;
}

const Member *FindMember(const meaning::Record &meaning, std::string_view name) {
    const auto found = std::ranges::find_if(meaning.members, [&](const Member &member) {
        return name == member.wire || name == member.name || name == Underscored(member.name) || name == KeyOf(member);
    });
    return found == meaning.members.end() ? nullptr : &*found;
}

Json FromNamed(const Json &named, const meaning::Record &meaning) {
    if (!named.is_object()) {
        return named; // the reader of the wire's form says what it expected
    }
    Json wire = Json::object();
    for (const auto &[key, value] : named.items()) {
        const Member *const member = FindMember(meaning, key);
        if (member == nullptr) {
            if (key.starts_with("ui") && value.is_number()) { // a vector's count, perhaps
                wire[key] = value;
                continue;
            }
            throw JsonError(
                fmt::format("{}: {} has no such member{}", key, meaning.type, DidYouMean(key, NamesOf(meaning))));
        }
        const std::string name(member->wire);
        if (wire.contains(name)) {
            throw JsonError(fmt::format("{} ({}) is stated twice", member->name, name));
        }
        const auto *const inside = InsideOf(meaning, *member);
        if (key != name) {
            wire[name] = WireJson(*member, value, inside, key == KeyOf(*member));
        } else {
            wire[name] = inside != nullptr && value.is_object() ? FromNamed(value, *inside) : value;
        }
    }
    return wire;
}

Json ParseValue(const meaning::Record &meaning, const Member &member, std::string_view text) {
    return ParseText(member, text, InsideOf(meaning, member));
}

} // namespace host::describe
