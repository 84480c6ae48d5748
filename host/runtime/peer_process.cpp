#include "host/runtime/peer_process.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <cerrno>

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace host {

Descriptor ProcessOfPeer(int socket, pid_t number) {
    int fd = -1;
    socklen_t size = sizeof fd;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERPIDFD, &fd, &size) == 0) {
        return Descriptor(fd);
    }
    const bool unknown = errno == ENOPROTOOPT; // to a kernel before 6.5
    return Descriptor(unknown && number > 0 ? static_cast<int>(syscall(SYS_pidfd_open, number, 0)) : -1);
}

bool KernelKeepsPeers() {
    static const bool keeps = [] {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
            return false;
        }
        const Descriptor one(ends[0]), other(ends[1]);
        return static_cast<bool>(ProcessOfPeer(one.Fd(), 0));
    }();
    return keeps;
}

bool HasEnded(const Descriptor &process) {
    pollfd end{process.Fd(), POLLIN, 0};
    return !process || poll(&end, 1, 0) != 0;
}

} // namespace host
