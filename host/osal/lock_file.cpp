#include "host/osal/lock_file.h"

#include <fcntl.h>
#include <sys/file.h>

#include <string>
#include <thread>

#include "host/osal/directories.h"

namespace host {

namespace {

constexpr std::chrono::milliseconds kPause(5);

Descriptor Open(const Descriptor &directory) {
    return Descriptor(
        openat(directory.Fd(), LockFile::kName, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
}

// Whether only this user and root can open it, whatever the umask was. What root creates becomes the directory's
// owner's.
bool IsPrivate(const Descriptor &file, uid_t owner) {
    const struct stat status = file.Status();
    if (!S_ISREG(status.st_mode) || (status.st_mode & 077) != 0 || status.st_nlink != 1) {
        return false;
    }
    const bool owned =
        status.st_uid == owner || (status.st_uid == geteuid() && fchown(file.Fd(), owner, status.st_gid) == 0);
    return owned && fchmod(file.Fd(), 0600) == 0;
}

Descriptor OpenPrivate(const Descriptor &directory, const std::filesystem::path &path) {
    const uid_t owner = directory.Status().st_uid;
    Descriptor file = Open(directory);
    const int error = errno;
    if (file && IsPrivate(file, owner)) {
        return file;
    }
    if (!Evict(directory, LockFile::kName)) {
        Fail(file ? errno : error, path.string());
    }
    file = Descriptor(Open(directory).Release(), path.string());
    if (!IsPrivate(file, owner)) {
        Fail(EPERM, fmt::format("{}: expected a file of user {} with mode 0600", path.string(), owner));
    }
    return file;
}

bool TryLock(const Descriptor &file, const std::string &path) {
    if (flock(file.Fd(), LOCK_EX | LOCK_NB) == 0) {
        return true;
    }
    if (errno != EWOULDBLOCK) {
        Fail(errno, path);
    }
    return false;
}

// The holder writes it, for whoever waits in vain. It may have come no further than to lock.
std::string HolderOf(const Descriptor &file) {
    char text[16]{};
    const ssize_t length = pread(file.Fd(), text, sizeof text - 1, 0);
    return length > 0 ? fmt::format("process {}", text) : "another process";
}

// On a full disk it stays unknown.
void WriteHolder(const Descriptor &file) {
    const std::string pid = std::to_string(getpid());
    [[maybe_unused]] const bool written =
        ftruncate(file.Fd(), 0) == 0 && pwrite(file.Fd(), pid.data(), pid.size(), 0) > 0;
}

} // namespace

LockFile::LockFile(const Descriptor &directory, const std::filesystem::path &path, std::chrono::milliseconds wait) {
    const std::string name = (path / kName).string();
    file_ = OpenPrivate(directory, name);
    const auto end = std::chrono::steady_clock::now() + wait;
    while (!TryLock(file_, name)) {
        if (std::chrono::steady_clock::now() >= end) {
            Fail(EBUSY, fmt::format("{} is locked by {}", path.string(), HolderOf(file_)));
        }
        std::this_thread::sleep_for(kPause);
    }
    WriteHolder(file_);
}

// Closing alone leaves it to a child that was forked meanwhile.
LockFile::~LockFile() {
    flock(file_.Fd(), LOCK_UN);
}

} // namespace host
