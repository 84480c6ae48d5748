#include "host/ctl/tasks/tasks.h"

#include <fmt/format.h>

#include <charconv>

#include "host/describe/moment.h"

namespace ctl {

std::string TimeText(std::chrono::milliseconds time) {
    return time.count() % 1000 != 0 ? fmt::format("{}ms", time.count()) : fmt::format("{}s", time.count() / 1000);
}

std::chrono::seconds ParseSpan(const char *option, const std::string &text) {
    constexpr uint64_t kMost = 10ULL * 366 * 86400;
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const std::string unit = end;
    const uint64_t scale = unit == "s" || unit.empty() ? 1
                           : unit == "m"               ? 60
                           : unit == "h"               ? 3600
                           : unit == "d"               ? 86400
                                                       : 0;
    if (error != std::errc() || scale == 0 || number == 0 || number > kMost / scale) {
        throw Failure(kUsage, fmt::format("{}: found {}, expected a time, as 30s, 10m, 1h or 7d", option,
                                          text.empty() ? "nothing" : text));
    }
    return std::chrono::seconds(number * scale);
}

std::chrono::system_clock::time_point SinceOf(const char *option, const std::string &text) {
    const auto now = std::chrono::system_clock::now();
    const bool isSpan = !text.empty() && text.find_first_not_of("0123456789smhd") == text.npos;
    const auto time = isSpan ? now - ParseSpan(option, text) : host::describe::ParseStatedTime(text, now);
    if (!time) {
        throw Failure(kUsage, fmt::format("{}: found {}, expected how long ago, such as 10m, 1h or 7d, or {}", option,
                                          text.empty() ? "nothing" : text, host::describe::kMomentExpected));
    }
    return *time;
}

std::chrono::milliseconds ParseTime(const char *option, const std::string &text, TimeUnit bare) {
    constexpr uint64_t kMost = 3'600'000;
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const std::string stated = end;
    const std::string unit = !stated.empty() ? stated : bare == TimeUnit::kSeconds ? "s" : "ms";
    const uint64_t scale = unit == "ms" ? 1 : unit == "s" ? 1000 : unit == "m" ? 60'000 : 0;
    if (error != std::errc() || scale == 0 || number == 0 || number > kMost / scale) {
        throw Failure(kUsage,
                      fmt::format("{}: found {}, expected a time of 1ms to 60m, as 500ms, 2s or 1m", option, text));
    }
    return std::chrono::milliseconds(number * scale);
}

} // namespace ctl
