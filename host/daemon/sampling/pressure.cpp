#include "host/daemon/sampling/pressure.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <exception>
#include <system_error>

namespace tarnd {

uint32_t ParsePressure(const std::string &text) {
    constexpr std::string_view kKey = "some avg10=";
    const size_t at = text.find(kKey);
    double percent = 0;
    if (at == text.npos ||
        std::from_chars(text.data() + at + kKey.size(), text.data() + text.size(), percent).ec != std::errc{}) {
        throw std::system_error(EPROTO, std::generic_category(), "no \"some avg10=\" in a pressure file");
    }
    return static_cast<uint32_t>(std::lround(percent * 10));
}

uint32_t ReadPressure(const host::procfs::Procfs &proc, const std::string &resource) {
    std::string text;
    try {
        text = proc.Read("pressure/" + resource);
    } catch (const std::system_error &) {
        const std::exception_ptr ofSystem = std::current_exception();
        try {
            text = host::procfs::ReadText("/sys/fs/cgroup/" + resource + ".pressure");
        } catch (const std::system_error &) {
            std::rethrow_exception(ofSystem);
        }
    }
    return ParsePressure(text);
}

} // namespace tarnd
