#include "host/runtime/transport.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace host {
namespace {

using std::filesystem::path;

// False when the path does not fit a socket address.
bool FillAddress(const path &socketPath, sockaddr_un &address) {
    address = {};
    address.sun_family = AF_UNIX;
    const std::string &text = socketPath.native();
    if (text.size() >= sizeof address.sun_path) {
        return false;
    }
    memcpy(address.sun_path, text.data(), text.size());
    return true;
}

int ConnectTo(int fd, const sockaddr_un &address) {
    return connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
}

// Held while sockets of a run directory come and go, so that no two servers both find the same one stale.
Descriptor LockDirectory(const path &directory) {
    Descriptor fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd || flock(fd.Fd(), LOCK_EX) != 0) {
        Fail(errno, "run directory " + directory.string());
    }
    return fd;
}

// Removes what a dead server left at the path; throws when a live one, or something else, is there.
void RemoveStale(const path &socketPath, const sockaddr_un &address) {
    struct stat status;
    if (lstat(socketPath.c_str(), &status) != 0) {
        return;
    }
    if (!S_ISSOCK(status.st_mode)) {
        throw std::runtime_error(socketPath.string() + ": not a socket; expected none, or one that a server left");
    }
    const Descriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!probe) {
        Fail(errno, "socket");
    }
    if (ConnectTo(probe.Fd(), address) == 0 || errno != ECONNREFUSED) {
        throw std::runtime_error(socketPath.string() + ": in use by a live server");
    }
    if (unlink(socketPath.c_str()) != 0) {
        Fail(errno, socketPath.string());
    }
}

} // namespace

Listener::Listener(path socketPath, bool toAll) : path_(std::move(socketPath)) {
    sockaddr_un address;
    if (!FillAddress(path_, address)) {
        throw std::runtime_error(fmt::format("{}: {} bytes, expected a socket path of at most {}", path_.string(),
                                             path_.native().size(), sizeof address.sun_path - 1));
    }
    std::error_code error;
    if (create_directories(path_.parent_path(), error); error) {
        throw std::system_error(error, "run directory " + path_.parent_path().string());
    }
    const Descriptor lock = LockDirectory(path_.parent_path());
    RemoveStale(path_, address);
    fd_ = Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd_ || bind(fd_.Fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        Fail(errno, path_.string());
    }
    struct stat status;
    if (chmod(path_.c_str(), toAll ? 0666 : 0600) != 0 || listen(fd_.Fd(), SOMAXCONN) != 0 ||
        lstat(path_.c_str(), &status) != 0) {
        Fail(errno, path_.string());
    }
    device_ = status.st_dev;
    inode_ = status.st_ino;
}

// Removes the path only while it is this socket's.
Listener::~Listener() {
    struct stat status;
    if (lstat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_) {
        unlink(path_.c_str());
    }
}

std::string Transport::Address(std::string_view service, uint32_t pid) const {
    return directory_.Socket(service, pid).string();
}

bool Transport::Knows(std::string_view service, uint32_t pid) const {
    struct stat status;
    return stat(directory_.Socket(service, pid).c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

Descriptor Transport::Connect(std::string_view service, uint32_t pid, Clock::time_point deadline, int &error) const {
    sockaddr_un address;
    if (!FillAddress(directory_.Socket(service, pid), address)) {
        error = ENAMETOOLONG;
        return Descriptor();
    }
    Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        error = errno;
        return fd;
    }
    // Where the listener's queue is full, connect waits as long as a send may.
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
    const auto wait = std::max<int64_t>(left, 1);
    const timeval timeout = {wait / 1000000, wait % 1000000};
    setsockopt(fd.Fd(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    if (ConnectTo(fd.Fd(), address) != 0) {
        error = errno == EAGAIN ? ETIMEDOUT : errno;
        return Descriptor();
    }
    return fd;
}

std::unique_ptr<Listener> Transport::Listen(std::string_view service, bool toAll) const {
    return std::make_unique<Listener>(directory_.Socket(service, 0), toAll);
}

} // namespace host
