#include "host/ctl/values.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "host/ctl/units.h"
#include "host/describe/moment.h"
#include "host/describe/quantity.h"
#include "host/meaning/unit.h"

namespace ctl {

using host::meaning::Choice;
using host::meaning::Kind;
using host::meaning::Value;

namespace {

// A number of units that are so many nanoseconds, at most the longest duration.
std::string TimeText(uint64_t number, uint64_t unit) {
    uint64_t nanoseconds = 0;
    const bool beyond = __builtin_mul_overflow(number, unit, &nanoseconds) || nanoseconds > INT64_MAX;
    return DurationText(std::chrono::nanoseconds(beyond ? INT64_MAX : static_cast<int64_t>(nanoseconds)));
}

std::string BytesText(uint64_t number, uint64_t unit) {
    uint64_t bytes = 0;
    return SizeText(__builtin_mul_overflow(number, unit, &bytes) ? UINT64_MAX : bytes);
}

std::string ChoiceText(const Value &value, uint64_t number) {
    const auto choice = std::ranges::find(value.choices, number, &Choice::value);
    return choice != value.choices.end() ? std::string(choice->name) : std::to_string(number);
}

// "cpu+memory"; what has no name as a number.
std::string FlagsText(const Value &value, uint64_t sum) {
    std::string text;
    const auto add = [&text](const std::string &word) { text += (text.empty() ? "" : "+") + word; };
    for (const Choice &one : value.choices) {
        if (one.value != 0 && (sum & one.value) == one.value) {
            add(std::string(one.name));
            sum &= ~uint64_t{one.value};
        }
    }
    if (sum != 0) {
        add(std::to_string(sum));
    }
    return text.empty() ? "none" : text;
}

// "S (sleeping)".
std::string LetterText(uint64_t number) {
    if (number <= ' ' || number >= 0x7F) {
        return std::to_string(number);
    }
    const std::string_view word = host::describe::StateWord(number);
    return std::string(1, static_cast<char>(number)) + (word.empty() ? "" : fmt::format(" ({})", word));
}

std::string ErrnoText(uint64_t number) {
    const char *const text = number == 0 || number > INT32_MAX ? nullptr : strerrordesc_np(static_cast<int>(number));
    return number == 0 ? "ok" : text == nullptr ? std::to_string(number) : fmt::format("{} ({})", number, text);
}

// "2026-02-03 04:05:06 +0100"; what is beyond four digits of a year as a number.
std::string UnixTimeText(uint64_t seconds) {
    constexpr uint64_t kMost = 253'402'214'400;
    if (seconds > kMost) {
        return std::to_string(seconds);
    }
    return host::describe::ZonedText(std::chrono::system_clock::from_time_t(static_cast<time_t>(seconds)));
}

} // namespace

std::string ValueText(const Value &value, uint64_t number) {
    switch (value.kind) {
    case Kind::kPermille:
        return PermilleText(number);
    case Kind::kThousandths:
        return fmt::format("{}.{:03}", number / 1000, number % 1000);
    case Kind::kKib:
        return BytesText(number, 1024);
    case Kind::kMib:
        return BytesText(number, 1024 * 1024);
    case Kind::kBytes:
        return SizeText(number);
    case Kind::kNanoseconds:
        return TimeText(number, 1);
    case Kind::kMicroseconds:
        return TimeText(number, 1'000);
    case Kind::kMilliseconds:
        return TimeText(number, 1'000'000);
    case Kind::kSeconds:
        return TimeText(number, 1'000'000'000);
    case Kind::kSigned:
        return std::to_string(static_cast<int32_t>(number));
    case Kind::kPid:
    case Kind::kTid:
    case Kind::kTids:
        return PidText(number);
    case Kind::kAddress:
        return fmt::format("{:#x}", number);
    case Kind::kErrno:
        return ErrnoText(number);
    case Kind::kLetter:
        return LetterText(number);
    case Kind::kUnixTime:
        return UnixTimeText(number);
    case Kind::kSwitch:
        return number > 1 ? std::to_string(number) : number == 1 ? "on" : "off";
    case Kind::kChoice:
        return ChoiceText(value, number);
    case Kind::kFlags:
        return FlagsText(value, number);
    default:
        return host::meaning::WithSign(number, value.kind);
    }
}

} // namespace ctl
