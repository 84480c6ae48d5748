#include "host/daemon/files/images.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <sstream>

#include <fmt/format.h>

#include "host/osal/error.h"
#include "host/procfs/memory.h"

namespace tarnd {

namespace {

// The kernel writes a line feed within a path as "\012".
std::string Unescape(std::string path) {
    for (size_t at = 0; (at = path.find("\\012", at)) != path.npos; ++at) {
        path.replace(at, 4, "\n");
    }
    return path;
}

bool HasFile(const std::string &path, uint64_t inode) {
    return inode != 0 && path.starts_with('/') && !path.starts_with("/memfd:") && !path.starts_with("/dev/zero") &&
           !path.starts_with("/SYSV");
}

// Finds a name as the process would.
int OpenByName(const host::procfs::Procfs &proc, uint32_t pid, const std::string &path) {
    const std::string rootPath = proc.Path(pid, "root");
    const host::Descriptor root(open(rootPath.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC), rootPath);
    open_how how{};
    how.flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    return static_cast<int>(syscall(SYS_openat2, root.Fd(), path.c_str(), &how, sizeof how));
}

// For documents and people, whatever bytes there are in a path.
std::string Escaped(const std::string &path) {
    std::string text;
    for (const char c : path) {
        if (c >= ' ' && c <= '~' && c != '\\') {
            text += c;
        } else {
            text += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
        }
    }
    return text;
}

} // namespace

std::vector<Image> ParseImages(const std::string &maps) {
    std::vector<Image> images;
    std::set<std::pair<std::string, uint64_t>> seen;
    std::istringstream lines(maps);
    for (std::string line; std::getline(lines, line);) {
        host::procfs::Mapping mapped = host::procfs::ParseMapping(line);
        if (mapped.perms.find('x') == mapped.perms.npos || !HasFile(mapped.name, mapped.inode) ||
            !seen.insert({mapped.device, mapped.inode}).second) {
            continue;
        }
        Image image{.path = std::move(mapped.name),
                    .name = {},
                    .device = std::move(mapped.device),
                    .inode = mapped.inode,
                    .mapping = std::move(mapped.range)};
        constexpr std::string_view kDeleted = " (deleted)";
        if (image.path.ends_with(kDeleted)) {
            image.path.resize(image.path.size() - kDeleted.size());
        }
        image.path = Unescape(std::move(image.path));
        image.name = Escaped(image.path);
        images.push_back(std::move(image));
    }
    return images;
}

std::vector<Image> ImagesOf(const host::procfs::Procfs &proc, uint32_t pid) {
    return ParseImages(proc.Read(pid, "maps"));
}

// To open what is in map_files takes a capability that few daemons have; the program itself takes no other than to
// look.
host::Descriptor OpenImage(const host::procfs::Procfs &proc, uint32_t pid, const Image &image) {
    const auto open = [&](const std::string &file) {
        return host::Descriptor(::open(proc.Path(pid, file).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    };
    const auto isIt = [&](const host::Descriptor &file) {
        const struct stat status = file.Status();
        return S_ISREG(status.st_mode) && status.st_ino == image.inode;
    };
    for (const std::string &file : {"map_files/" + image.mapping, std::string("exe")}) {
        if (host::Descriptor opened = open(file); opened && isIt(opened)) {
            return opened;
        }
    }
    host::Descriptor named(OpenByName(proc, pid, image.path), image.path);
    if (!isIt(named)) {
        host::Fail(ESTALE, image.path + " is another file than the one that process " + std::to_string(pid) + " runs");
    }
    return named;
}

} // namespace tarnd
