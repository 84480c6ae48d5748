#include "host/describe/quantity.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <numeric>
#include <vector>

#include "host/describe/moment.h"

namespace host::describe {

namespace {

using meaning::Choice;
using meaning::Kind;
using meaning::Value;

// A unit, and how many of the smallest unit of its quantity it has.
struct Scale {
    std::string_view sign;
    uint64_t size;
};
constexpr Scale kTimes[] = {{"ns", 1},
                            {"us", 1'000},
                            {"ms", 1'000'000},
                            {"s", 1'000'000'000},
                            {"min", 60'000'000'000},
                            {"m", 60'000'000'000},
                            {"h", 3'600'000'000'000}};
constexpr Scale kSizes[] = {
    {"B", 1}, {"KiB", 1ULL << 10}, {"MiB", 1ULL << 20}, {"GiB", 1ULL << 30}, {"TiB", 1ULL << 40}};
constexpr Scale kShares[] = {{"‰", 1}, {"%", 10}};

struct Quantity {
    std::span<const Scale> scales;
    uint64_t own; // the size of the member's unit
    const char *expected;
};

std::optional<Quantity> QuantityOf(Kind kind) {
    switch (kind) {
    case Kind::kPermille:
        return Quantity{kShares, 1, "a share, such as 90% or 900"};
    case Kind::kPercent:
        return Quantity{kShares, 10, "a share, such as 90%"};
    case Kind::kBytes:
        return Quantity{kSizes, 1, "a size, such as 4096 or 64KiB"};
    case Kind::kKib:
        return Quantity{kSizes, 1ULL << 10, "a size, such as 512KiB, 64MiB or a number of KiB"};
    case Kind::kMib:
        return Quantity{kSizes, 1ULL << 20, "a size, such as 64MiB, 2GiB or a number of MiB"};
    case Kind::kNanoseconds:
        return Quantity{kTimes, 1, "a time, such as 500us, 2ms or a number of ns"};
    case Kind::kMicroseconds:
        return Quantity{kTimes, 1'000, "a time, such as 500us, 2ms or a number of us"};
    case Kind::kMilliseconds:
        return Quantity{kTimes, 1'000'000, "a time, such as 500ms, 2s or a number of ms"};
    case Kind::kSeconds:
        return Quantity{kTimes, 1'000'000'000, "a time, such as 10s, 2m or a number of seconds"};
    case Kind::kMinutes:
        return Quantity{kTimes, 60'000'000'000, "a time, such as 90m, 2h or a number of minutes"};
    case Kind::kHours:
        return Quantity{kTimes, 3'600'000'000'000, "a number of hours, such as 2 or 2h"};
    default:
        return std::nullopt;
    }
}

[[noreturn]] void Fail(const Value &value, std::string_view text) {
    throw QuantityError(fmt::format("found {}, expected {}", text.empty() ? "nothing" : text, QuantityExpected(value)));
}

// "12.5" of units of `size`, in units of `own`. Decimals are kept whole: 12.5% is 125 permille, 0.1 is no double.
std::optional<uint64_t> Scaled(std::string_view digits, uint64_t size, uint64_t own) {
    constexpr size_t kMostDecimals = 6;
    const size_t point = digits.find('.');
    const std::string_view fraction = point == digits.npos ? "" : digits.substr(point + 1);
    const std::string all = fmt::format("{}{}", digits.substr(0, point), fraction);
    const auto number = ParseWhole(all);
    if (!number || point == 0 || fraction.size() > kMostDecimals || (point != digits.npos && fraction.empty())) {
        return std::nullopt;
    }
    uint64_t parts = own;
    for (size_t i = 0; i < fraction.size(); ++i) {
        parts *= 10;
    }
    const uint64_t common = std::gcd(size, parts);
    uint64_t scaled = 0;
    if (__builtin_mul_overflow(*number, size / common, &scaled) || scaled % (parts / common) != 0) {
        return std::nullopt;
    }
    return scaled / (parts / common);
}

uint64_t ParseMeasure(const Value &value, const Quantity &quantity, std::string_view text) {
    if (const auto number = ParseWhole(text)) {
        return *number;
    }
    const size_t end = std::min(text.find_first_not_of("0123456789."), text.size());
    std::string_view sign = text.substr(end);
    sign.remove_prefix(std::min(sign.find_first_not_of(' '), sign.size()));
    const auto scale = std::ranges::find(quantity.scales, sign, &Scale::sign);
    const auto number =
        scale == quantity.scales.end() ? std::nullopt : Scaled(text.substr(0, end), scale->size, quantity.own);
    if (!number) {
        Fail(value, text);
    }
    return *number;
}

// A choice's name, or its number.
uint64_t ParseChoice(const Value &value, std::string_view text) {
    const auto named = std::ranges::find(value.choices, text, &Choice::name);
    if (named != value.choices.end()) {
        return named->value;
    }
    const auto number = ParseWhole(text);
    if (!number) {
        Fail(value, text);
    }
    return *number;
}

uint64_t ParseFlags(const Value &value, std::string_view text) {
    if (const auto number = ParseWhole(text)) {
        return *number;
    }
    if (text == "none") {
        return 0;
    }
    uint64_t sum = 0;
    for (size_t at = 0; at <= text.size();) {
        const size_t end = std::min(text.find_first_of("+,", at), text.size());
        const auto named = std::ranges::find(value.choices, text.substr(at, end - at), &Choice::name);
        if (named == value.choices.end()) {
            Fail(value, text);
        }
        sum |= named->value;
        at = end + 1;
    }
    return sum;
}

uint64_t ParseSwitch(const Value &value, std::string_view text) {
    constexpr std::string_view kWords[] = {"off", "on", "false", "true", "no", "yes", "0", "1"};
    const auto found = std::ranges::find(kWords, text);
    if (found != std::end(kWords)) {
        return static_cast<uint64_t>(found - std::begin(kWords)) % 2;
    }
    const auto number = ParseWhole(text); // whether it fits is for the one who checks the request
    if (!number) {
        Fail(value, text);
    }
    return *number;
}

struct State {
    char letter;
    std::string_view word;
};
constexpr State kStates[] = {{'R', "running"}, {'S', "sleeping"}, {'D', "waiting-for-device"},
                             {'T', "stopped"}, {'t', "traced"},   {'Z', "zombie"},
                             {'X', "dead"},    {'I', "idle"},     {'P', "parked"}};

// A state's word, a letter, or its number.
uint64_t ParseLetter(const Value &value, std::string_view text) {
    const auto state = std::ranges::find(kStates, text, &State::word);
    if (state != std::end(kStates)) {
        return static_cast<uint8_t>(state->letter);
    }
    const auto number = text.size() == 1 ? std::optional<uint64_t>(static_cast<uint8_t>(text[0])) : ParseWhole(text);
    if (!number) {
        Fail(value, text);
    }
    return *number;
}

// "ENOENT", "ok", or the number.
uint64_t ParseErrno(const Value &value, std::string_view text) {
    constexpr int kMost = 4095; // as the kernel has it
    if (text == "ok") {
        return 0;
    }
    for (int error = 1; error <= kMost; ++error) {
        const char *const name = strerrorname_np(error);
        if (name != nullptr && text == name) {
            return static_cast<uint64_t>(error);
        }
    }
    const auto number = ParseWhole(text);
    if (!number) {
        Fail(value, text);
    }
    return *number;
}

uint64_t ParseUnixTime(const Value &value, std::string_view text) {
    if (const auto number = ParseWhole(text)) {
        return *number;
    }
    const auto time = ParseStatedTime(text, std::chrono::system_clock::now());
    if (!time || time->time_since_epoch().count() < 0) {
        Fail(value, text);
    }
    return static_cast<uint64_t>(std::chrono::system_clock::to_time_t(*time));
}

uint64_t ParseSigned(const Value &value, std::string_view text) {
    int32_t number = 0;
    const char *const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, number);
    if (error != std::errc() || end != last) {
        Fail(value, text);
    }
    return static_cast<uint32_t>(number);
}

} // namespace

std::optional<uint64_t> ParseWhole(std::string_view text) {
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    const char *const first = text.data() + (hex ? 2 : 0);
    const char *const last = text.data() + text.size();
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(first, last, number, hex ? 16 : 10);
    return error == std::errc() && end == last ? std::optional(number) : std::nullopt;
}

uint64_t ParseQuantity(const Value &value, std::string_view text) {
    if (const auto quantity = QuantityOf(value.kind)) {
        return ParseMeasure(value, *quantity, text);
    }
    switch (value.kind) {
    case Kind::kSwitch:
        return ParseSwitch(value, text);
    case Kind::kChoice:
        return ParseChoice(value, text);
    case Kind::kFlags:
        return ParseFlags(value, text);
    case Kind::kSigned:
        return ParseSigned(value, text);
    case Kind::kLetter:
        return ParseLetter(value, text);
    case Kind::kErrno:
        return ParseErrno(value, text);
    case Kind::kUnixTime:
        return ParseUnixTime(value, text);
    default:
        if (const auto number = ParseWhole(text)) {
            return *number;
        }
        Fail(value, text);
    }
}

std::string_view StateWord(uint64_t letter) {
    const auto state = std::ranges::find(kStates, letter, &State::letter);
    return state != std::end(kStates) ? state->word : std::string_view();
}

std::string QuantityExpected(const Value &value) {
    if (const auto quantity = QuantityOf(value.kind)) {
        return quantity->expected;
    }
    std::vector<std::string_view> names;
    for (const Choice &one : value.choices) {
        names.push_back(one.name);
    }
    switch (value.kind) {
    case Kind::kSwitch:
        return "on or off";
    case Kind::kChoice:
        return fmt::format("{}", fmt::join(names, ", "));
    case Kind::kFlags:
        return fmt::format("a sum of {}, joined by +", fmt::join(names, ", "));
    case Kind::kSigned:
        return "a whole number, which may be negative";
    case Kind::kLetter:
        return "a state's letter, or its word, such as sleeping";
    case Kind::kErrno:
        return "an errno value's name, such as ENOENT, or its number";
    case Kind::kUnixTime:
        return std::string(kMomentExpected);
    default:
        return "a whole number, such as 12 or 0xc";
    }
}

} // namespace host::describe
