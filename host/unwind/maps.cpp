#include "host/unwind/maps.h"

#include <sys/sysmacros.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <system_error>

#include "host/procfs/memory.h"

namespace host::unwind {

namespace {

std::optional<procfs::Mapping> Parse(std::string_view line) {
    try {
        return procfs::ParseMapping(line);
    } catch (const std::system_error &) {
        return {};
    }
}

// "fd:01"
dev_t DeviceOf(std::string_view text) {
    const char *const end = text.data() + text.size();
    unsigned major = 0, minor = 0;
    const char *const colon = std::from_chars(text.data(), end, major, 16).ptr;
    std::from_chars(std::min(colon + 1, end), end, minor, 16);
    return makedev(major, minor);
}

void Add(std::vector<Module> &modules, const procfs::Mapping &line) {
    if (line.start == line.end || (line.name != kVdso && (!line.name.starts_with('/') || line.inode == 0))) {
        return;
    }
    const Mapping mapping{line.start, line.end, line.fileOffset, line.perms.starts_with('r')};
    const dev_t device = DeviceOf(line.device);
    if (!modules.empty() && modules.back().device == device && modules.back().inode == line.inode &&
        modules.back().path == line.name) {
        modules.back().mappings.push_back(mapping);
    } else if (modules.size() < kMostModules) {
        modules.push_back({line.name, device, line.inode, {mapping}});
    }
}

} // namespace

std::vector<Module> ParseMaps(std::string_view text) {
    std::vector<Module> modules;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        if (const std::optional<procfs::Mapping> mapping = Parse(line)) {
            Add(modules, *mapping);
        }
        text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
    return modules;
}

} // namespace host::unwind
