#include "host/store/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <system_error>
#include <utility>

#include <fmt/format.h>

namespace host {

namespace {

constexpr std::string_view kAsideSuffix = ".tarn-partial";

// The lock says that the file has a living owner; it ends with the owner's process.
bool TakeOwnership(int fd) {
    return flock(fd, LOCK_EX | LOCK_NB) == 0;
}

// A name for what is open.
std::string ByDescriptor(int fd) {
    return fmt::format("/proc/self/fd/{}", fd);
}

// -1 and EOPNOTSUPP, or on old systems EISDIR or ENOENT, where there are no files without a name.
int OpenUnnamed(const Descriptor &directory, mode_t mode) {
    return openat(directory.Fd(), ".", O_RDWR | O_TMPFILE | O_CLOEXEC, mode);
}

int OpenAside(const Descriptor &directory, const std::string &aside, mode_t mode, FileAside::Until until, bool &named) {
    if (until == FileAside::Until::kUnnamed) {
        const int fd = OpenUnnamed(directory, mode);
        if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != ENOENT)) {
            return fd;
        }
    }
    const int fd = openat(directory.Fd(), aside.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    named = fd >= 0;
    return fd;
}

// The names in a directory, without "." and "..", until the function says that it wants no more.
template <class Function>
void ForEachName(const Descriptor &directory, Function wantsMore) {
    // A description of its own, since the position in the directory is shared with a duplicate.
    const char *const what = "reading a directory";
    Descriptor own(openat(directory.Fd(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC), what);
    const std::unique_ptr<DIR, int (*)(DIR *)> stream(fdopendir(own.Fd()), closedir);
    if (stream == nullptr) {
        Fail(errno, what);
    }
    own.Release(); // the stream has it
    while (const dirent *entry = readdir(stream.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != ".." && !wantsMore(name)) {
            return;
        }
    }
}

} // namespace

Descriptor OpenDirectory(const std::string &path) {
    return {open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), path};
}

Descriptor OpenIn(const Descriptor &directory, const std::string &name) {
    Descriptor found(openat(directory.Fd(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC), name);
    const mode_t mode = found.Status().st_mode;
    if (S_ISLNK(mode)) {
        Fail(EACCES, name + " is a link");
    }
    if (!S_ISREG(mode) && !S_ISDIR(mode)) {
        return found;
    }
    // Where the owner has a lease on a file, to open it would wait until he gives way: EWOULDBLOCK.
    return {open(ByDescriptor(found.Fd()).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC), name};
}

std::vector<std::string> NamesBeneath(const std::string &root, std::string_view path) {
    if (path.starts_with('/')) {
        const std::string_view base = std::string_view(root).substr(0, root.size() - (root.ends_with('/') ? 1 : 0));
        if (!path.starts_with(base) || (path.size() > base.size() && path[base.size()] != '/')) {
            Fail(EACCES, fmt::format("{} lies outside of {}", path, root));
        }
        path.remove_prefix(base.size());
    }
    std::vector<std::string> names;
    while (!path.empty()) {
        const std::string_view name = path.substr(0, path.find('/'));
        path.remove_prefix(std::min(path.size(), name.size() + 1));
        if (name == "..") {
            Fail(EACCES, fmt::format("\"..\" in a path within {}", root));
        }
        if (!name.empty() && name != ".") {
            names.emplace_back(name);
        }
    }
    return names;
}

Descriptor OpenBeneath(const std::string &root, const std::vector<std::string> &names) {
    Descriptor at = OpenDirectory(root);
    for (const std::string &name : names) {
        at = OpenIn(at, name);
    }
    return at;
}

std::vector<std::string> NamesIn(const Descriptor &directory, uint64_t most) {
    std::vector<std::string> names;
    ForEachName(directory, [&](const std::string &name) {
        names.push_back(name);
        return names.size() < most;
    });
    std::sort(names.begin(), names.end());
    return names;
}

void WriteAll(const Descriptor &file, std::string_view bytes, const std::string &what) {
    while (!bytes.empty()) {
        const ssize_t written = write(file.Fd(), bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) {
            Fail(errno, what);
        }
        bytes.remove_prefix(written < 0 ? 0 : static_cast<size_t>(written));
    }
}

bool SameFile(const struct stat &a, const struct stat &b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

FileAside::FileAside(const Descriptor &directory, std::string name, mode_t mode, Until until)
    : directory_(directory), name_(std::move(name)), aside_(AsideName(name_)),
      file_(OpenAside(directory, aside_, mode, until, named_), name_) {
    TakeOwnership(file_.Fd());
}

FileAside::~FileAside() {
    if (named_) {
        unlinkat(directory_.Fd(), aside_.c_str(), 0);
    }
}

bool FileAside::Is(const struct stat &status) const {
    struct stat older {};
    const bool replaces = fstatat(directory_.Fd(), name_.c_str(), &older, AT_SYMLINK_NOFOLLOW) == 0;
    return SameFile(status, file_.Status()) || (replaces && SameFile(status, older));
}

void FileAside::Commit(Older older) {
    if (fsync(file_.Fd()) != 0) {
        Fail(errno, name_);
    }
    Rename(older);
    if (fsync(directory_.Fd()) != 0) {
        Fail(errno, "the directory of " + name_);
    }
}

// A link can't replace a file, so a file without a name is given the hidden one first, if it is to replace an older.
void FileAside::Rename(Older older) {
    if (!named_) {
        const std::string self = ByDescriptor(file_.Fd());
        const std::string &name = older == Older::kKeep ? name_ : aside_;
        if (linkat(AT_FDCWD, self.c_str(), directory_.Fd(), name.c_str(), AT_SYMLINK_FOLLOW) != 0) {
            Fail(errno, name_);
        }
        if (older == Older::kKeep) {
            return;
        }
        named_ = true;
    }
    const unsigned flags = older == Older::kKeep ? RENAME_NOREPLACE : 0;
    if (renameat2(directory_.Fd(), aside_.c_str(), directory_.Fd(), name_.c_str(), flags) != 0) {
        Fail(errno, name_);
    }
    named_ = false;
}

std::string AsideName(const std::string &name) {
    static std::atomic<uint32_t> count = 0;
    constexpr size_t kLongest = 200; // of the name; the hidden one must not exceed what a file system takes
    return fmt::format(".{}.{}.{}{}", name.substr(0, kLongest), getpid(), count++, kAsideSuffix);
}

bool IsAside(std::string_view name) {
    return name.starts_with('.') && name.ends_with(kAsideSuffix);
}

size_t RemoveAbandoned(const Descriptor &directory) {
    size_t removed = 0;
    ForEachName(directory, [&](const std::string &name) {
        struct stat status {};
        if (!IsAside(name) || fstatat(directory.Fd(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISREG(status.st_mode) || status.st_uid != geteuid()) {
            return true;
        }
        const Descriptor file(openat(directory.Fd(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (file && TakeOwnership(file.Fd()) && unlinkat(directory.Fd(), name.c_str(), 0) == 0) {
            ++removed;
        }
        return true;
    });
    return removed;
}

} // namespace host
