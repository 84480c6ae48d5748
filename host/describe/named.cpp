#include "host/describe/named.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "host/describe/escape.h"
#include "host/describe/moment.h"
#include "host/describe/named_units.h"
#include "host/describe/quantity.h"
#include "host/meaning/unit.h"

namespace host::describe {

namespace {

using meaning::Choice;
using meaning::Member;
using meaning::Value;

constexpr uint64_t kExact = uint64_t{1} << 53; // every whole number up to it is a double

Json NumberJson(uint64_t number, meaning::Kind kind) {
    uint64_t scaled = 0;
    if (__builtin_mul_overflow(number, NamedUnitOf(kind).scale, &scaled)) {
        return meaning::WithSign(number, kind);
    }
    return scaled > kExact ? Json(std::to_string(scaled)) : Json(scaled);
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
    if (const std::string_view word = StateWord(number); !word.empty()) {
        return word;
    }
    return number > ' ' && number < 0x7F ? Json(std::string(1, static_cast<char>(number))) : Json(number);
}

Json ErrnoJson(uint64_t number) {
    const char *const name = number <= INT32_MAX ? strerrorname_np(static_cast<int>(number)) : nullptr;
    return number == 0 ? Json("ok") : name != nullptr ? Json(name) : Json(number);
}

Json UnixTimeJson(uint64_t seconds) {
    constexpr uint64_t kMost = 253'402'214'400; // the last day of 9999
    if (seconds == 0 || seconds > kMost) {
        return seconds == 0 ? Json() : Json(seconds);
    }
    return Rfc3339(std::chrono::system_clock::from_time_t(static_cast<time_t>(seconds)));
}

Json ScalarJson(const Value &value, uint64_t number) {
    switch (value.kind) {
    case meaning::Kind::kSwitch:
        return number > 1 ? Json(number) : Json(number == 1);
    case meaning::Kind::kChoice: {
        const auto choice = std::ranges::find(value.choices, number, &Choice::value);
        return choice != value.choices.end() ? Json(choice->name) : NumberJson(number, value.kind);
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
        return UnixTimeJson(number);
    case meaning::Kind::kAddress:
        return fmt::format("{:#x}", number);
    default:
        return NumberJson(number, value.kind);
    }
}

// What the JSON of the wire has for bytes: text, or {"hex": ...}. An array's end is left out.
std::string BytesOf(const Json &wire) {
    if (wire.is_string()) {
        return wire.get<std::string>();
    }
    const auto bytes = FromHex(wire["hex"].get_ref<const std::string &>());
    std::string text(bytes->begin(), bytes->end());
    return text.erase(text.find_last_not_of('\0') + 1);
}

Json TextJson(const Value &value, const Json &wire) {
    if (wire.is_null() || value.kind == meaning::Kind::kBinary) {
        return wire;
    }
    const std::string text = BytesOf(wire);
    if (IsTime(value.kind)) {
        return text.empty() ? Json() : Json(Rfc3339OfText(text).value_or(Escaped(text)));
    }
    return Escaped(text);
}

Json TimeJson(const Value &value, const Json &time) {
    const auto part = [&time](const char *member) { return time[member].get<int>(); };
    const Moment moment{part("usYear"),   part("ucMonth"),  part("ucDay"),        part("ucHour"),
                        part("ucMinute"), part("ucSecond"), part("uiMillisecond")};
    if (std::ranges::all_of(time, [](const Json &one) { return one == 0; })) {
        return {};
    }
    return IsReal(moment) ? Json(Rfc3339(moment, value.kind == meaning::Kind::kGmtTime ? Zone::kGmt : Zone::kLocal))
                          : time;
}

Json MemberJson(const Member &member, const Json &wire, const meaning::Record *inside) {
    if (wire.is_object() && inside != nullptr) {
        return IsTime(member.value.kind) ? TimeJson(member.value, wire) : ToNamed(wire, *inside);
    }
    if (wire.is_array()) {
        Json array = Json::array();
        for (const Json &element : wire) {
            array.push_back(MemberJson(member, element, inside));
        }
        return array;
    }
    return wire.is_number() ? ScalarJson(member.value, wire.get<uint64_t>()) : TextJson(member.value, wire);
}

std::string Underscored(std::string_view name) {
    std::string key(name);
    std::ranges::replace(key, '-', '_');
    return key;
}

} // namespace

std::string KeyOf(const Member &member) {
    return Underscored(member.name) + NamedUnitOf(member.value.kind).suffix;
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

const meaning::Record *InsideOf(const meaning::Record &meaning, const Member &member) {
    return meaning.inside[static_cast<size_t>(&member - meaning.members.data())];
}

} // namespace host::describe
