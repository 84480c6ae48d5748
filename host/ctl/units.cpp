#include "host/ctl/units.h"

#include <fmt/format.h>

#include <array>
#include <fstream>

#include "host/osal/text.h"

namespace ctl {

std::string DurationText(std::chrono::nanoseconds duration) {
    const auto count = duration.count();
    if (count == 0) {
        return "0 s";
    }
    if (count < 1000) {
        return fmt::format("{} ns", count);
    }
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration).count();
    if (seconds >= 3600) {
        return fmt::format("{}h {:02}m", seconds / 3600, seconds / 60 % 60);
    }
    if (seconds >= 60) {
        return fmt::format("{}m {:02}s", seconds / 60, seconds % 60);
    }
    const auto value = static_cast<double>(count);
    return count < 1'000'000       ? fmt::format("{:.1f} us", value / 1e3)
           : count < 1'000'000'000 ? fmt::format("{:.1f} ms", value / 1e6)
                                   : fmt::format("{:.1f} s", value / 1e9);
}

std::string SizeText(uint64_t bytes) {
    constexpr std::array kUnits{"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) {
        return fmt::format("{} B", bytes);
    }
    double value = static_cast<double>(bytes) / 1024;
    size_t unit = 0;
    for (; value >= 1024 && unit + 1 < kUnits.size(); ++unit) {
        value /= 1024;
    }
    return fmt::format("{:.1f} {}", value, kUnits[unit]);
}

std::string PermilleText(uint64_t permille) {
    return fmt::format("{}.{} %", permille / 10, permille % 10);
}

std::string PidText(uint64_t pid) {
    std::ifstream file(fmt::format("/proc/{}/comm", pid));
    std::string name;
    std::getline(file, name);
    return name.empty() ? std::to_string(pid) : fmt::format("{} ({})", pid, host::LineOfText(name));
}

} // namespace ctl
