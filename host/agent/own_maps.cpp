#include "host/agent/own_maps.h"

#include <algorithm>

namespace agent {

namespace {

uint64_t TakeHex(std::string_view &text) {
    uint64_t value = 0;
    for (; !text.empty(); text.remove_prefix(1)) {
        const char c = text.front();
        if (c >= '0' && c <= '9') {
            value = value << 4 | static_cast<uint64_t>(c - '0');
        } else if (c >= 'a' && c <= 'f') {
            value = value << 4 | static_cast<uint64_t>(c - 'a' + 10);
        } else {
            break;
        }
    }
    return value;
}

void Skip(std::string_view &text, size_t count) {
    text.remove_prefix(std::min(count, text.size()));
}

} // namespace

// A line: start-end permissions offset device inode path.
bool OwnMaps::Next(OwnMapping &mapping) {
    std::string_view line;
    if (!lines_.Next(line)) {
        return false;
    }
    mapping.start = TakeHex(line);
    Skip(line, 1);
    mapping.end = TakeHex(line);
    mapping.isExecutable = line.starts_with(" r") && line.substr(3).starts_with('x');
    Skip(line, sizeof " r-xp " - 1);
    mapping.fileOffset = TakeHex(line);
    const size_t path = line.find('/');
    mapping.path = path == std::string_view::npos ? std::string_view() : line.substr(path);
    return true;
}

} // namespace agent
