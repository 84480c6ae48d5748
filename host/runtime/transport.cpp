#include "host/runtime/transport.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "host/osal/directories.h"
#include "host/osal/log.h"
#include "host/runtime/agent_sockets.h"
#include "host/runtime/peer_process.h"
#include "host/runtime/run_directory.h"

namespace host {
namespace {

using std::filesystem::path;

// Connections are taken in the order that they came in: whoever connects as fast as he can is ahead by no more. Where
// there is no room, connect waits.
constexpr int kBacklog = 16;

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

// A name that another user has taken, with whatever file, is no reason not to serve.
bool EvictOthers(const RunDirectory &directory, const path &socketPath, const struct stat &status) {
    if (status.st_uid == geteuid() || directory.IsOf(status.st_uid) || !directory.IsOf(geteuid())) {
        return false;
    }
    if (!Evict(directory.Open(), socketPath.filename())) {
        Fail(errno, socketPath.string());
    }
    Log().warn("{}: removed what user {} had put there", socketPath.string(), status.st_uid);
    return true;
}

// Why nobody takes a connection: ECONNREFUSED where nobody listens, EAGAIN where all is taken for the moment. 0 where
// somebody does.
int Probe(const sockaddr_un &address) {
    const Descriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket");
    return ConnectTo(probe.Fd(), address) == 0 ? 0 : errno;
}

// Removes what a dead server left at the path; throws when a live one, or something else, is there.
void RemoveStale(const RunDirectory &directory, const path &socketPath, const sockaddr_un &address) {
    const std::string name = socketPath.filename();
    struct stat status;
    if (fstatat(directory.Open().Fd(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
        EvictOthers(directory, socketPath, status)) {
        return;
    }
    if (!S_ISSOCK(status.st_mode)) {
        throw std::runtime_error(socketPath.string() + ": not a socket; expected none, or one that a server left");
    }
    const int error = Probe(address);
    if (error == 0 || error == EAGAIN) {
        Fail(EADDRINUSE, socketPath.string() + ": in use by a live server");
    }
    if (error != ECONNREFUSED) {
        Fail(error,
             fmt::format("{}: a socket of user {}, which may have a server", socketPath.string(), status.st_uid));
    }
    if (unlinkat(directory.Open().Fd(), name.c_str(), 0) != 0) {
        Fail(errno, socketPath.string());
    }
}

// A directory that only this user may enter: what is in it can't be swapped while it gets ready.
class PrivateDirectory {
public:
    explicit PrivateDirectory(const RunDirectory &parent) : parent_(parent), name_(HiddenName()) {
        if (mkdirat(parent_.Open().Fd(), name_.c_str(), 0700) != 0) {
            Fail(errno, parent_.Path() / name_);
        }
        open_ = Descriptor(openat(parent_.Open().Fd(), name_.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC),
                           name_);
        if (open_.Status().st_uid != geteuid() || !ChangeMode(open_, 0700)) {
            Fail(EPERM, parent_.Path() / name_);
        }
    }
    ~PrivateDirectory() { unlinkat(parent_.Open().Fd(), name_.c_str(), AT_REMOVEDIR); }
    PrivateDirectory(const PrivateDirectory &) = delete;
    PrivateDirectory &operator=(const PrivateDirectory &) = delete;

    int Fd() const { return open_.Fd(); }

private:
    const RunDirectory &parent_;
    const std::string name_;
    Descriptor open_;
};

// A socket has its mode, and listens, before clients can find it.
Descriptor ListenIn(const RunDirectory &directory, const path &socketPath, mode_t mode, struct stat &status) {
    const std::string name = socketPath.filename();
    const PrivateDirectory aside(directory);
    sockaddr_un address;
    FillAddress(fmt::format("/proc/self/fd/{}/{}", aside.Fd(), name), address);
    Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket");
    if (bind(fd.Fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        Fail(errno, socketPath.string());
    }
    const bool ready = fchmodat(aside.Fd(), name.c_str(), mode, 0) == 0 && listen(fd.Fd(), kBacklog) == 0 &&
                       fstatat(aside.Fd(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                       linkat(aside.Fd(), name.c_str(), directory.Open().Fd(), name.c_str(), 0) == 0;
    const int error = errno;
    unlinkat(aside.Fd(), name.c_str(), 0);
    if (!ready) {
        Fail(error, socketPath.string());
    }
    return fd;
}

mode_t ModeFor(bool all) {
    return all ? 0666 : 0600;
}

} // namespace

Listener::Listener(path socketPath, bool toAll) : path_(std::move(socketPath)) {
    sockaddr_un address;
    if (!FillAddress(path_, address)) {
        throw std::runtime_error(fmt::format("{}: {} bytes, expected a socket path of at most {}", path_.string(),
                                             path_.native().size(), sizeof address.sun_path - 1));
    }
    const RunDirectory directory(path_.parent_path());
    RunDirectory::Lock lock;
    directory.Take(lock);
    RemoveStale(directory, path_, address);
    struct stat status;
    fd_ = ListenIn(directory, path_, ModeFor(toAll), status);
    device_ = status.st_dev;
    inode_ = status.st_ino;
}

// Removes the path only while it is this socket's.
Listener::~Listener() {
    struct stat status;
    if (lstat(path_.c_str(), &status) == 0 && IsAt(status)) {
        unlink(path_.c_str());
    }
}

bool Listener::OpenTo(bool all) const {
    const Descriptor file(open(path_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!file) {
        return false;
    }
    if (!IsAt(file.Status())) {
        errno = ENOENT;
        return false;
    }
    return ChangeMode(file, ModeFor(all));
}

std::string Transport::Address(std::string_view service, uint32_t pid) const {
    return directory_.Socket(service, pid).string();
}

bool Transport::Knows(std::string_view service, uint32_t pid) const {
    struct stat status;
    return (stat(directory_.Socket(service, pid).c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) ||
           (pid != 0 && !OtherSocketsOfAgent(directory_.RunDir(), pid).empty());
}

namespace {

// Who listens at the other end.
ucred HolderOf(const Descriptor &socket) {
    ucred holder{-1, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
    socklen_t size = sizeof holder;
    getsockopt(socket.Fd(), SOL_SOCKET, SO_PEERCRED, &holder, &size);
    return holder;
}

Connected Open(const path &socketPath, Transport::Clock::time_point deadline) {
    Connected connection;
    sockaddr_un address;
    if (!FillAddress(socketPath, address)) {
        connection.error = ENAMETOOLONG;
        return connection;
    }
    Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        connection.error = errno;
        return connection;
    }
    // Where the listener's queue is full, connect waits as long as a send may.
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Transport::Clock::now()).count();
    const auto wait = std::max<int64_t>(left, 1);
    const timeval timeout = {wait / 1000000, wait % 1000000};
    setsockopt(fd.Fd(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    if (ConnectTo(fd.Fd(), address) != 0) {
        connection.error = errno == EAGAIN ? ETIMEDOUT : errno;
    } else {
        connection.socket = std::move(fd);
    }
    return connection;
}

Connected Refused(const path &socketPath, const ucred &holder, const std::string &expected) {
    Connected connection;
    connection.error = EPERM;
    connection.reason = fmt::format("the socket {} is held by process {} of user {}, expected {}", socketPath.string(),
                                    holder.pid, holder.uid, expected);
    return connection;
}

// The agent of that process, and of none that had its number before, if it is the one that listens there.
Connected OpenAgent(const path &socketPath, uint32_t pid, Transport::Clock::time_point deadline) {
    Connected connection = Open(socketPath, deadline);
    if (!connection.socket) {
        return connection;
    }
    const ucred holder = HolderOf(connection.socket);
    connection.process = ProcessOfPeer(connection.socket.Fd(), holder.pid);
    if (const int error = errno; !connection.process && (error == EMFILE || error == ENFILE || error == ENOMEM)) {
        connection.socket = Descriptor();
        connection.error = error; // who it is can't be told
        return connection;
    }
    if (static_cast<uint32_t>(holder.pid) == pid && !HasEnded(connection.process)) {
        return connection;
    }
    return Refused(socketPath, holder, fmt::format("process {}", pid));
}

} // namespace

// Empty when the user is trusted; else who would be.
std::string Transport::WhyNotTrusted(uid_t holder) const {
    struct stat status {};
    const uid_t owner = stat(directory_.RunDir().c_str(), &status) == 0 ? status.st_uid : 0;
    const std::optional<uid_t> daemon = DaemonUser();
    if (holder == 0 || holder == geteuid() || holder == owner || holder == daemon) {
        return {};
    }
    return fmt::format("root, user {}, the directory's owner, user {}, or the daemon's user, {} (TARN_USER)", geteuid(),
                       owner, daemon ? std::to_string(*daemon) : "of which there is none");
}

Connected Transport::ConnectToAgent(uint32_t pid, Clock::time_point deadline) const {
    Connected first = OpenAgent(directory_.Socket("TarnSysdiagAgent", pid), pid, deadline);
    if (first.socket) {
        return first;
    }
    for (const path &socketPath : OtherSocketsOfAgent(directory_.RunDir(), pid)) {
        if (Connected other = OpenAgent(socketPath, pid, deadline); other.socket) {
            return other;
        }
    }
    return first;
}

Connected Transport::Connect(std::string_view service, uint32_t pid, Clock::time_point deadline) const {
    if (pid != 0) {
        return ConnectToAgent(pid, deadline);
    }
    const path socketPath = directory_.Socket(service, pid);
    Connected connection = Open(socketPath, deadline);
    if (connection.socket) {
        const ucred holder = HolderOf(connection.socket);
        if (const std::string expected = WhyNotTrusted(holder.uid); !expected.empty()) {
            return Refused(socketPath, holder, expected);
        }
    }
    return connection;
}

std::vector<uint32_t> Transport::Agents() const {
    std::vector<uint32_t> pids;
    for (const path &socketPath : AgentSockets(directory_.RunDir())) {
        const Connected connection = Open(socketPath, Clock::now());
        pids.push_back(connection.socket ? static_cast<uint32_t>(HolderOf(connection.socket).pid)
                                         : NumberInName(socketPath));
    }
    std::ranges::sort(pids);
    pids.erase(std::unique(pids.begin(), pids.end()), pids.end());
    return pids;
}

namespace {

bool IsDead(const RunDirectory &directory, const path &socketPath, struct stat &status) {
    sockaddr_un address;
    return fstatat(directory.Open().Fd(), socketPath.filename().c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISSOCK(status.st_mode) && FillAddress(socketPath, address) && Probe(address) == ECONNREFUSED;
}

// An agent of another user, who takes no lock, may have got the name since: it gets it back.
void RemoveDead(const RunDirectory &directory, const std::string &name, const struct stat &dead) {
    const int fd = directory.Open().Fd();
    const std::string aside = HiddenName();
    struct stat status {};
    if (renameat(fd, name.c_str(), fd, aside.c_str()) != 0 ||
        fstatat(fd, aside.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return;
    }
    if (status.st_dev != dead.st_dev || status.st_ino != dead.st_ino) {
        [[maybe_unused]] const int linked = linkat(fd, aside.c_str(), fd, name.c_str(), 0); // or has made another
    }
    unlinkat(fd, aside.c_str(), 0);
}

} // namespace

void Transport::RemoveDeadAgents() const {
    const RunDirectory directory(directory_.RunDir());
    if (!directory.IsOf(geteuid())) {
        return;
    }
    RunDirectory::Lock lock;
    directory.Take(lock);
    for (const path &socketPath : AgentSockets(directory.Path())) {
        if (struct stat status; IsDead(directory, socketPath, status)) {
            RemoveDead(directory, socketPath.filename(), status);
            Log().info("{}: removed, its agent has ended", socketPath.string());
        }
    }
}

// An agent whose name is taken, by another's live socket or a file that can't be removed, takes another.
std::unique_ptr<Listener> Transport::Listen(std::string_view service, bool toAll) const {
    const path socketPath = directory_.Socket(service, 0);
    if (NumberInName(socketPath) == 0) {
        return std::make_unique<Listener>(socketPath, toAll);
    }
    try {
        return std::make_unique<Listener>(socketPath, toAll);
    } catch (const std::exception &error) {
        Log().warn("{}; taking another name", error.what());
        return std::make_unique<Listener>(SpareAgentSocket(directory_.RunDir()), toAll);
    }
}

} // namespace host
