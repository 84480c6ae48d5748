#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "host/describe/escape.h"
#include "host/describe/moment.h"
#include "host/describe/named.h"
#include "host/describe/named_units.h"
#include "host/describe/quantity.h"
#include "host/osal/hex.h"
#include "host/osal/text.h"
#include "velto/shape.h"

namespace host::describe {

namespace {

using meaning::Member;

[[noreturn]] void Fail(const Place &place, std::string_view found, const std::string &expected) {
    throw JsonError(fmt::format("{}: found {}, expected {}", place.Name(), found, expected));
}

const velto::SlotShape &SlotOf(const Place &place) {
    return place.record.shape->Slot(static_cast<size_t>(&place.member - place.record.members.data()));
}

bool IsArray(const Place &place) {
    const velto::Kind kind = SlotOf(place).kind;
    return kind == velto::Kind::kArray64 || kind == velto::Kind::kVector32;
}

// The longest form that there is room for.
std::string TimeText(const Place &place, const Moment &moment, Zone zone) {
    const velto::SlotShape &slot = SlotOf(place);
    for (const std::string &text : {ZonedText(moment, zone), PlainText(moment)}) {
        if (slot.kind != velto::Kind::kBytes || text.size() <= slot.length) {
            return text;
        }
    }
    return DigitsText(moment);
}

Json TimeFromText(const Place &place, std::string_view text) {
    const Zone zone = place.member.value.kind == meaning::Kind::kGmtTime ? Zone::kGmt : Zone::kLocal;
    const auto moment = ParseStatedMoment(text, std::chrono::system_clock::now(), zone);
    if (!moment) {
        Fail(place, text, std::string(kMomentExpected));
    }
    if (SlotOf(place).kind != velto::Kind::kTable) {
        return TimeText(place, *moment, zone);
    }
    return {{"usYear", moment->year},       {"ucMonth", moment->month},
            {"ucDay", moment->day},         {"ucHour", moment->hour},
            {"ucMinute", moment->minute},   {"ucSecond", moment->second},
            {"ucWeek", WeekdayOf(*moment)}, {"uiMillisecond", moment->millisecond}};
}

Json NumberFromText(const Place &place, std::string_view text) {
    try {
        return ParseQuantity(place.member.value, text);
    } catch (const QuantityError &error) {
        throw JsonError(fmt::format("{}: {}", place.Name(), error.what()));
    }
}

// An array of fixed length is filled up with 0.
Json FilledUp(const Place &place, Json numbers) {
    const velto::SlotShape &slot = SlotOf(place);
    while (slot.kind == velto::Kind::kArray64 && numbers.size() < slot.length) {
        numbers.push_back(0);
    }
    return numbers;
}

// "1,2,3".
Json NumbersFromText(const Place &place, std::string_view text) {
    Json numbers = Json::array();
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find(',', at), text.size());
        numbers.push_back(NumberFromText(place, text.substr(at, end - at)));
        at = end + 1;
    }
    return FilledUp(place, std::move(numbers));
}

// A number in the JSON's unit, in the member's own.
uint64_t Unscaled(const Place &place, uint64_t number) {
    const uint64_t scale = NamedUnitOf(place.member.value.kind).scale;
    if (number % scale != 0) {
        Fail(place, std::to_string(number), fmt::format("a multiple of {}", scale));
    }
    return number / scale;
}

Json NumberFromJson(const Place &place, const Json &number, bool keyed) {
    if (place.member.value.kind == meaning::Kind::kSigned && number.is_number_integer() &&
        number.get<int64_t>() >= INT32_MIN && number.get<int64_t>() < 0) {
        return static_cast<uint32_t>(number.get<int64_t>());
    }
    return keyed && number.is_number_unsigned() ? Json(Unscaled(place, number.get<uint64_t>())) : number;
}

// `keyed`: under a key, whose numbers are in the JSON's unit.
Json TextFromJson(const Place &place, const std::string &text, bool keyed) {
    const bool scaled = keyed && NamedUnitOf(place.member.value.kind).scale != 1;
    if (const auto number = scaled ? ParseWhole(text) : std::nullopt) {
        return Unscaled(place, *number);
    }
    return FromText(place, text);
}

Json Translate(const Json &named, const meaning::Record &meaning, const std::string &path);

Json ValueFromJson(const Place &place, const Json &value, bool keyed);

Json ArrayFromJson(const Place &place, const Json &array, bool keyed) {
    if (place.member.value.kind == meaning::Kind::kFlags) {
        uint64_t sum = 0;
        for (const Json &word : array) {
            const Json flag = ValueFromJson(place, word, keyed);
            sum |= flag.is_number_unsigned() ? flag.get<uint64_t>() : (Fail(place, word.dump(), "a name"), 0);
        }
        return sum;
    }
    const meaning::Record *const inside = InsideOf(place.record, place.member);
    Json translated = Json::array();
    for (size_t i = 0; i < array.size(); ++i) {
        const std::string path = fmt::format("{}{}[{}].", place.path, place.member.name, i);
        translated.push_back(inside != nullptr ? Translate(array[i], *inside, path)
                             : array[i].is_string() && IsArray(place)
                                 ? NumberFromText(place, array[i].get_ref<const std::string &>())
                                 : ValueFromJson(place, array[i], keyed));
    }
    return translated;
}

// Absent: no time, no text, no elements.
Json Nothing(const Place &place) {
    const bool table = SlotOf(place).kind == velto::Kind::kTable;
    return table ? Json::object() : place.member.value.kind == meaning::Kind::kUnixTime ? Json(0) : Json();
}

Json ValueFromJson(const Place &place, const Json &value, bool keyed) {
    const meaning::Record *const inside = InsideOf(place.record, place.member);
    switch (value.type()) {
    case Json::value_t::null:
        return Nothing(place);
    case Json::value_t::string:
        return TextFromJson(place, value.get_ref<const std::string &>(), keyed);
    case Json::value_t::boolean:
        return place.member.value.kind == meaning::Kind::kSwitch ? Json(value.get<bool>() ? 1 : 0) : value;
    case Json::value_t::array:
        return ArrayFromJson(place, value, keyed);
    case Json::value_t::object:
        return inside != nullptr ? Translate(value, *inside, place.path + std::string(place.member.name) + ".") : value;
    default:
        return NumberFromJson(place, value, keyed);
    }
}

// Under its wire name a value is as the wire has it, but tables in it may have names.
Json FromWire(const Place &place, const Json &value) {
    const meaning::Record *const inside = InsideOf(place.record, place.member);
    return inside != nullptr && value.is_structured() ? ValueFromJson(place, value, false) : value;
}

bool IsCount(const meaning::Record &meaning, std::string_view key) {
    return std::ranges::any_of(std::span(meaning.slots, meaning.members.size()), [key](const velto::SlotName &slot) {
        return slot.count != nullptr && key == slot.count;
    });
}

Json Translate(const Json &named, const meaning::Record &meaning, const std::string &path) {
    if (!named.is_object()) {
        return named; // who reads the wire's form says what it expected
    }
    Json wire = Json::object();
    for (const auto &[key, value] : named.items()) {
        if (IsCount(meaning, key)) {
            wire[key] = value;
            continue;
        }
        const Place place = PlaceOf(meaning, key, path);
        const std::string name(place.member.wire);
        if (wire.contains(name)) {
            throw JsonError(place.Name() + " is stated twice");
        }
        wire[name] = key == name ? FromWire(place, value) : ValueFromJson(place, value, key == KeyOf(place.member));
    }
    return wire;
}

// The closest of all that a member can be called by; or, when they are few, their names.
std::string Suggestion(const meaning::Record &record, std::string_view wanted) {
    std::vector<std::string> keys;
    std::vector<std::string_view> names, all;
    std::ranges::transform(record.members, std::back_inserter(keys), KeyOf);
    std::ranges::transform(record.members, std::back_inserter(names), &Member::name);
    std::ranges::transform(record.members, std::back_inserter(all), &Member::wire);
    all.insert(all.end(), names.begin(), names.end());
    std::ranges::copy_if(keys, std::back_inserter(all),
                         [&](const std::string &key) { return std::ranges::find(names, key) == names.end(); });
    return DidYouMean(wanted, ClosestNames(wanted, all).empty() ? names : all);
}

} // namespace

std::string Place::Name() const {
    return fmt::format("{}{} ({})", path, member.name, member.wire);
}

Place PlaceOf(const meaning::Record &record, std::string_view name, const std::string &path) {
    if (const Member *const member = FindMember(record, name)) {
        return {record, *member, path};
    }
    throw JsonError(fmt::format("{}{}: {} has no such member{}", path, name, record.type, Suggestion(record, name)));
}

Json FromText(const Place &place, std::string_view text) {
    const meaning::Kind kind = place.member.value.kind;
    if (IsTime(kind)) {
        return TimeFromText(place, text);
    }
    if (IsText(kind)) {
        return FromBytes(place, Unescaped(text));
    }
    if (IsArray(place)) {
        return NumbersFromText(place, text);
    }
    if (const meaning::Record *const inside = InsideOf(place.record, place.member)) {
        Fail(place, fmt::format("\"{}\"", text), fmt::format("the members of {}", inside->type));
    }
    return NumberFromText(place, text);
}

Json FromBytes(const Place &place, std::string_view bytes) {
    const velto::SlotShape &slot = SlotOf(place);
    if (!IsText(place.member.value.kind)) {
        Fail(place, fmt::format("{} bytes", bytes.size()), "a value that is no text");
    }
    if (slot.kind == velto::Kind::kBytes && bytes.size() > slot.length) {
        Fail(place, fmt::format("{} bytes", bytes.size()), fmt::format("at most {}", slot.length));
    }
    if (host::IsText(bytes)) {
        return std::string(bytes);
    }
    std::string whole(bytes);
    whole.resize(slot.kind == velto::Kind::kBytes ? slot.length : bytes.size());
    return {{"hex", Hex({reinterpret_cast<const uint8_t *>(whole.data()), whole.size()})}};
}

Json FromNamed(const Json &named, const meaning::Record &meaning) {
    return Translate(named, meaning, "");
}

} // namespace host::describe
