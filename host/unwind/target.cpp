#include "host/unwind/target.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "host/procfs/procfs.h"

namespace host::unwind {

namespace {

constexpr size_t kMostMapsBytes = 16U << 20;
constexpr int kReadFile = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

Descriptor OpenDirectory(uint32_t pid) {
    Descriptor directory(open(("/proc/" + std::to_string(pid)).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory) {
        Fail(errno == ENOENT ? ESRCH : errno, "process " + std::to_string(pid));
    }
    return directory;
}

// What there is of a file from its start on, up to a bound.
std::string TextFrom(int fd, size_t most) {
    std::string text;
    for (ssize_t got = 1; got > 0 && text.size() < most;) {
        char buffer[16384];
        got = pread(fd, buffer, sizeof buffer, static_cast<off_t>(text.size()));
        text.append(buffer, static_cast<size_t>(std::max<ssize_t>(got, 0)));
    }
    return text;
}

// The second number behind a key: of the real, the effective, the saved and the file system's id.
uint32_t EffectiveId(const std::string &status, const std::string &key) {
    const size_t at = status.find("\n" + key);
    std::istringstream ids(status.substr(std::min(at, status.size() - 1) + 1));
    std::string word;
    uint32_t real = 0, effective = 0;
    if (!(ids >> word >> real >> effective)) {
        Fail(EPROTO, "no ids behind " + key);
    }
    return effective;
}

bool IsOf(const Descriptor &file, const Module &module) {
    const struct stat status = file.Status();
    return S_ISREG(status.st_mode) && status.st_dev == module.device && status.st_ino == module.inode;
}

} // namespace

ProcessDirectory::ProcessDirectory(uint32_t pid, uint64_t startTicks) : directory_(OpenDirectory(pid)) {
    if (procfs::ParseStat(Text("stat")).startTicks != startTicks) {
        Fail(ESRCH, "process " + std::to_string(pid));
    }
}

Descriptor ProcessDirectory::OpenIfAllowed(const char *name, int flags) const {
    return Descriptor(openat(directory_.Fd(), name, flags | O_CLOEXEC));
}

Descriptor ProcessDirectory::Open(const char *name, int flags) const {
    Descriptor file = OpenIfAllowed(name, flags);
    if (!file) {
        if (errno == EACCES || errno == EPERM) {
            Fail(EPERM, name);
        }
        Fail(procfs::ParseStat(Text("stat")).HasEnded() ? ESRCH : ENOTSUP, name);
    }
    return file;
}

std::string ProcessDirectory::Text(const char *name) const {
    const Descriptor file = OpenIfAllowed(name, O_RDONLY);
    const std::string text = file ? TextFrom(file.Fd(), 64U << 10) : "";
    if (text.empty()) {
        Fail(ESRCH, name);
    }
    return text;
}

Ids ProcessDirectory::ActsAs() const {
    const std::string status = Text("status");
    return {EffectiveId(status, "Uid:"), EffectiveId(status, "Gid:")};
}

Target::Target(uint32_t pid, uint64_t startTicks)
    : pid_(pid), directory_(pid, startTicks), memory_(directory_.Open("mem", O_RDONLY)),
      maps_(directory_.Open("maps", O_RDONLY)), root_(directory_.Open("root", O_PATH | O_DIRECTORY)),
      program_(directory_.OpenIfAllowed("exe", kReadFile)) {
    // What was opened is of a program that runs with our own user's rights: it may have changed them since it was
    // decided whose this process is.
    if (directory_.ActsAs().user != geteuid()) {
        Fail(EPERM, "process " + std::to_string(pid) + ": its user has changed");
    }
}

std::string Target::Maps() const {
    return TextFrom(maps_.Fd(), kMostMapsBytes);
}

size_t Target::Read(uint64_t address, void *to, size_t bytes) const {
    const ssize_t got = pread64(memory_.Fd(), to, bytes, static_cast<off64_t>(address));
    return static_cast<size_t>(std::max<ssize_t>(got, 0));
}

Descriptor Target::OpenFile(const Module &module) const {
    open_how how{};
    how.flags = kReadFile;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    Descriptor file(static_cast<int>(syscall(SYS_openat2, root_.Fd(), module.path.c_str(), &how, sizeof how)));
    if (file && IsOf(file, module)) {
        return file;
    }
    if (program_ && IsOf(program_, module)) {
        return Descriptor(fcntl(program_.Fd(), F_DUPFD_CLOEXEC, 0));
    }
    return {};
}

} // namespace host::unwind
