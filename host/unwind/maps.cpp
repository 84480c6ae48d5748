#include "host/unwind/maps.h"

#include <sys/sysmacros.h>

#include <charconv>

namespace host::unwind {

namespace {

// Takes a line apart from its front on.
class Line {
public:
    explicit Line(std::string_view text) : rest_(text) {}

    uint64_t Number(int base) {
        uint64_t value = 0;
        const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), value, base);
        good_ = good_ && error == std::errc{};
        rest_.remove_prefix(static_cast<size_t>(end - rest_.data()));
        return value;
    }
    void Skip(char expected) {
        good_ = good_ && rest_.starts_with(expected);
        rest_.remove_prefix(rest_.empty() ? 0 : 1);
    }
    std::string_view Word() {
        const std::string_view word = rest_.substr(0, rest_.find(' '));
        rest_.remove_prefix(word.size());
        return word;
    }
    std::string_view Rest() {
        rest_.remove_prefix(std::min(rest_.find_first_not_of(' '), rest_.size()));
        return rest_;
    }
    bool Good() const { return good_; }

private:
    std::string_view rest_;
    bool good_ = true;
};

// "7f10-7f20 r-xp 00001000 fd:01 1234   /usr/lib/libfoo.so"
void Add(std::vector<Module> &modules, std::string_view text) {
    Line line(text);
    Mapping mapping{};
    mapping.low = line.Number(16);
    line.Skip('-');
    mapping.high = line.Number(16);
    line.Skip(' ');
    mapping.readable = line.Word().starts_with('r');
    line.Skip(' ');
    mapping.fileOffset = line.Number(16);
    line.Skip(' ');
    const auto major = static_cast<unsigned>(line.Number(16));
    line.Skip(':');
    const dev_t device = makedev(major, static_cast<unsigned>(line.Number(16)));
    line.Skip(' ');
    const uint64_t inode = line.Number(10);
    const std::string_view path = line.Rest();
    if (!line.Good() || mapping.low >= mapping.high || (path != kVdso && (!path.starts_with('/') || inode == 0))) {
        return;
    }
    if (!modules.empty() && modules.back().device == device && modules.back().inode == inode &&
        modules.back().path == path) {
        modules.back().mappings.push_back(mapping);
    } else if (modules.size() < kMostModules) {
        modules.push_back({std::string(path), device, inode, {mapping}});
    }
}

} // namespace

std::vector<Module> ParseMaps(std::string_view text) {
    std::vector<Module> modules;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        Add(modules, line);
        text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
    return modules;
}

} // namespace host::unwind
