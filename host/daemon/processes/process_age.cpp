#include "host/daemon/processes/process_age.h"

#include <cerrno>
#include <charconv>
#include <system_error>

namespace tarnd {

std::chrono::nanoseconds AgeOf(const host::procfs::Procfs &proc, uint64_t startTicks) {
    const std::string text = proc.Read("uptime");
    double seconds = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), seconds).ec != std::errc{}) {
        throw std::system_error(EPROTO, std::generic_category(), proc.Path("uptime"));
    }
    constexpr int64_t kNs = 1'000'000'000;
    const auto started = static_cast<int64_t>(startTicks * (kNs / host::procfs::TicksPerSecond()));
    return std::chrono::nanoseconds(static_cast<int64_t>(seconds * kNs) - started);
}

host::WallTime StartOf(std::chrono::nanoseconds age, const host::Clocks &clocks) {
    return clocks.WallNow() - std::chrono::duration_cast<host::WallTime::duration>(age);
}

} // namespace tarnd
