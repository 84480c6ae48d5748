#include "host/procfs/memory.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace host::procfs {

namespace {

// The lines of a file that may be long, without their line feeds.
class Lines {
public:
    Lines(const Procfs &proc, std::string path)
        : proc_(proc), path_(std::move(path)), file_(fopen(path_.c_str(), "re"), fclose) {
        if (file_ == nullptr) {
            proc_.Fail(errno, path_);
        }
    }
    ~Lines() { free(line_); }
    Lines(const Lines &) = delete;
    Lines &operator=(const Lines &) = delete;

    bool Next(std::string_view &line) {
        errno = 0;
        const ssize_t length = getline(&line_, &capacity_, file_.get());
        if (length < 0) {
            if (ferror(file_.get()) != 0) {
                proc_.Fail(errno, path_);
            }
            return false;
        }
        line = {line_, static_cast<size_t>(length)};
        if (line.ends_with('\n')) {
            line.remove_suffix(1);
        }
        return true;
    }

private:
    const Procfs &proc_;
    const std::string path_;
    std::unique_ptr<FILE, int (*)(FILE *)> file_;
    char *line_ = nullptr;
    size_t capacity_ = 0;
};

uint64_t *Member(Mapping &mapping, std::string_view key) {
    if (key == "Rss") {
        return &mapping.resident;
    }
    if (key == "Pss") {
        return &mapping.proportional;
    }
    if (key == "Private_Dirty") {
        return &mapping.privateDirty;
    }
    return key == "Swap" ? &mapping.swap : nullptr;
}

// "Rss:                1760 kB"
void TakeSize(Mapping &mapping, std::string_view line, size_t colon) {
    uint64_t *const member = Member(mapping, line.substr(0, colon));
    const size_t digit = line.find_first_not_of(' ', colon + 1);
    if (member != nullptr && digit != line.npos) {
        std::from_chars(line.data() + digit, line.data() + line.size(), *member);
    }
}

void ReadFile(const Procfs &proc, uint32_t pid, const char *file, const TakeMapping &take) {
    Mapping mapping;
    bool started = false;
    Lines lines(proc, proc.Path(pid, file));
    for (std::string_view line; lines.Next(line);) {
        // A line below a mapping starts with a key and a colon; in a mapping's the range comes before the first colon.
        const size_t colon = line.find_first_of(": ");
        if (colon != line.npos && line[colon] == ':') {
            TakeSize(mapping, line, colon);
            continue;
        }
        if (started) {
            take(mapping);
        }
        mapping = ParseMapping(line);
        started = true;
    }
    if (started) {
        take(mapping);
    }
}

// The kernel ends the file of a process that goes while it is being read, as if there were no more.
void ReadWhole(const Procfs &proc, uint32_t pid, const char *file, const TakeMapping &take) {
    const Task before = proc.ReadProcess(pid);
    if (!HasMemory(proc.Read(pid, "status"))) {
        return;
    }
    ReadFile(proc, pid, file, take);
    const Task after = proc.ReadProcess(pid);
    if (after.startTicks != before.startTicks || !HasMemory(proc.Read(pid, "status"))) {
        proc.Fail(ESRCH, proc.Path(pid, file) + ": ended while it was read");
    }
}

} // namespace

Mapping ParseMapping(std::string_view line) {
    const std::string_view whole = line;
    const auto word = [&] {
        line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
        const std::string_view found = line.substr(0, line.find(' '));
        line.remove_prefix(found.size());
        return found;
    };
    bool good = true;
    const auto number = [&](std::string_view text, int base) {
        uint64_t value = 0;
        good = good && std::from_chars(text.data(), text.data() + text.size(), value, base).ec == std::errc{};
        return value;
    };
    Mapping mapping;
    mapping.range = word();
    const std::string_view range = mapping.range;
    const size_t dash = std::min(range.find('-'), range.size());
    mapping.start = number(range.substr(0, dash), 16);
    mapping.end = number(range.substr(std::min(dash + 1, range.size())), 16);
    mapping.perms = word();
    mapping.fileOffset = number(word(), 16);
    mapping.device = word();
    mapping.inode = number(word(), 10);
    mapping.name = line.substr(std::min(line.find_first_not_of(' '), line.size()));
    if (!good || mapping.end < mapping.start) {
        throw std::system_error(EPROTO, std::generic_category(), "not a line of maps: " + std::string(whole));
    }
    mapping.size = (mapping.end - mapping.start) / 1024;
    return mapping;
}

void ReadMappings(const Procfs &proc, uint32_t pid, const TakeMapping &take) {
    ReadWhole(proc, pid, "smaps", take);
}

void ReadMappedRanges(const Procfs &proc, uint32_t pid, const TakeMapping &take) {
    ReadWhole(proc, pid, "maps", take);
}

bool HasMemory(std::string_view status) {
    return FindField(status, "VmSize").has_value();
}

std::string ProgramName(const Procfs &proc, uint32_t pid) {
    const std::string path = proc.Path(pid, "exe");
    char target[4096];
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    if (length < 0) {
        if (errno == ENOENT) {
            proc.ReadProcess(pid); // there, and has none
            return {};
        }
        proc.Fail(errno, path);
    }
    const std::string_view program(target, static_cast<size_t>(length));
    return std::string(program.substr(program.rfind('/') + 1));
}

} // namespace host::procfs
