#include "host/meaning/unit.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace host::meaning {

namespace {

struct Words {
    Kind kind;
    std::string_view sign, name;
};

constexpr Words kWords[] = {
    {Kind::kPermille, "‰", "permille"},
    {Kind::kPercent, "%", "percent"},
    {Kind::kThousandths, "/1000", "thousandths"},
    {Kind::kKib, "KiB", "KiB"},
    {Kind::kMib, "MiB", "MiB"},
    {Kind::kBytes, "B", "bytes"},
    {Kind::kNanoseconds, "ns", "ns"},
    {Kind::kMicroseconds, "us", "us"},
    {Kind::kMilliseconds, "ms", "ms"},
    {Kind::kSeconds, "s", "s"},
    {Kind::kMinutes, "min", "minutes"},
    {Kind::kHours, "h", "hours"},
    {Kind::kCount, "", "count"},
    {Kind::kNumber, "", "number"},
    {Kind::kSigned, "", "signed number"},
    {Kind::kPid, "", "process id"},
    {Kind::kTid, "", "thread id"},
    {Kind::kUid, "", "user id"},
    {Kind::kAddress, "", "address"},
    {Kind::kErrno, "", "errno value"},
    {Kind::kLetter, "", "letter of a state"},
    {Kind::kUnixTime, "", "seconds since 1970"},
    {Kind::kSwitch, "", "switch"},
    {Kind::kChoice, "", "choice"},
    {Kind::kFlags, "", "sum of choices"},
    {Kind::kUnused, "", "unused"},
    {Kind::kText, "", "text"},
    {Kind::kLines, "", "lines of text"},
    {Kind::kWord, "", "word"},
    {Kind::kPattern, "", "pattern"},
    {Kind::kLocalTime, "", "local time"},
    {Kind::kGmtTime, "", "time in GMT"},
    {Kind::kBinary, "", "binary"},
    {Kind::kRecord, "", "record"},
    {Kind::kRecords, "", "records"},
    {Kind::kNumbers, "", "numbers"},
    {Kind::kTids, "", "thread ids"},
};

static_assert(
    [] {
        for (size_t i = 0; i < std::size(kWords); ++i) {
            if (kWords[i].kind != static_cast<Kind>(i)) {
                return false;
            }
        }
        return true;
    }(),
    "kWords is in the order of Kind");

std::string NumberText(uint64_t value, Kind kind) {
    switch (kind) {
    case Kind::kAddress:
        return fmt::format("{:#x}", value);
    case Kind::kSigned:
        return std::to_string(static_cast<int32_t>(value));
    default:
        return std::to_string(value);
    }
}

} // namespace

std::string_view SignOf(Kind kind) {
    return kWords[static_cast<size_t>(kind)].sign;
}

std::string_view NameOf(Kind kind) {
    return kWords[static_cast<size_t>(kind)].name;
}

std::optional<Kind> KindNamed(std::string_view name) {
    const auto found = std::ranges::find(kWords, name, &Words::name);
    return found == std::end(kWords) ? std::nullopt : std::optional(found->kind);
}

std::string WithSign(uint64_t value, Kind kind) {
    const std::string_view sign = SignOf(kind);
    return NumberText(value, kind) + (sign.empty() ? "" : " ") + std::string(sign);
}

std::string NamesInSum(uint32_t sum, std::span<const Choice> choices) {
    std::string text;
    for (const Choice &one : choices) {
        if ((sum & one.value) != 0) {
            text.append(text.empty() ? "" : "+").append(one.name);
        }
    }
    return text;
}

} // namespace host::meaning
