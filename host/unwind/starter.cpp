#include "host/unwind/starter.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "host/osal/descriptor.h"
#include "host/unwind/confinement.h"
#include "host/unwind/protocol.h"
#include "host/unwind/target.h"

namespace host::unwind {

namespace {

constexpr size_t kMostHelpers = 64;
constexpr Ids kNobody{65534, 65534};
// One that nobody asks ends by itself, unless its user has stopped it.
constexpr std::chrono::seconds kLongestLife{60};

// A helper lives as long as the daemon holds its end of the socket. It is we who may kill it: the daemon may not.
struct Helper {
    pid_t pid;
    Descriptor process;
    Descriptor socket; // the helper's end; none once it is told to go
    std::chrono::steady_clock::time_point end;
};

// The descriptor that came with a message; none where there was none.
Descriptor Received(msghdr &message) {
    Descriptor descriptor;
    for (cmsghdr *part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_RIGHTS &&
            part->cmsg_len == CMSG_LEN(sizeof(int))) {
            int fd = -1;
            memcpy(&fd, CMSG_DATA(part), sizeof fd);
            descriptor = Descriptor(fd);
        }
    }
    return descriptor;
}

void Refuse(const Descriptor &socket, int32_t error) {
    struct {
        Head head;
        int32_t error;
    } const answer{{Kind::kReady, sizeof error}, error};
    static_assert(sizeof answer == sizeof(Head) + sizeof error);
    send(socket.Fd(), &answer, sizeof answer, MSG_NOSIGNAL | MSG_DONTWAIT);
}

bool MayBecomeOthers() {
    return HasCapability(CAP_SETUID) && HasCapability(CAP_SETGID);
}

// By whose rights a helper acts.
Ids UserFor(const StartRequest &request) {
    const bool other = MayBecomeOthers();
    if (request.job == Job::kDemangle) {
        return other ? kNobody : Ids{geteuid(), getegid()};
    }
    const Ids ids = ProcessDirectory(request.pid, request.startTicks).ActsAs();
    if (!other && ids.user != geteuid()) {
        Fail(EPERM, "to become another user");
    }
    return ids;
}

void Become(const Ids &ids) {
    if (MayBecomeOthers()) {
        // It has what it keeps as another user, too, until it gives up what is left.
        if (prctl(PR_SET_KEEPCAPS, 1) != 0 || setgroups(0, nullptr) != 0 ||
            setresgid(ids.group, ids.group, ids.group) != 0 || setresuid(ids.user, ids.user, ids.user) != 0) {
            Fail(errno, "to become another user");
        }
    }
}

// Of a process that is to become a helper: all that it has open is its socket, and no log of the daemon's.
[[noreturn]] void Execute(const StartRequest &request, const Descriptor &socket, const Ids &ids) {
    try {
        std::string job = request.job == Job::kUnwind ? "--unwind" : "--demangle";
        std::string pid = std::to_string(request.pid), startTicks = std::to_string(request.startTicks);
        char *arguments[] = {program_invocation_name, job.data(), pid.data(), startTicks.data(), nullptr};
        char *environment[] = {nullptr};
        if (dup2(STDOUT_FILENO, STDERR_FILENO) < 0 || dup2(socket.Fd(), kSocket) < 0 ||
            syscall(SYS_close_range, kSocket + 1, ~0U, 0) != 0) {
            Fail(errno, "its socket");
        }
        Become(ids);
        if (request.job == Job::kUnwind) {
            KeepCapabilities({CAP_SYS_PTRACE});
        } else {
            KeepCapabilities({});
        }
        execve("/proc/self/exe", arguments, environment);
        Fail(errno, "/proc/self/exe");
    } catch (const std::system_error &) {
        _exit(126); // to the daemon, it has ended
    }
}

class Starter {
public:
    // Until the daemon has gone.
    void Run() {
        for (bool goesOn = true; goesOn;) {
            std::vector<pollfd> waits = Waits();
            if (poll(waits.data(), waits.size(), TimeLeft()) < 0) {
                continue;
            }
            for (size_t i = helpers_.size(); i-- > 0;) {
                Look(i, waits[1 + 2 * i].revents, waits[2 + 2 * i].revents);
            }
            goesOn = waits[0].revents == 0 || Obey();
        }
        for (const Helper &helper : helpers_) {
            Kill(helper);
        }
    }

private:
    // Until a helper has lived for too long, in milliseconds.
    int TimeLeft() const {
        auto left = kLongestLife + std::chrono::steady_clock::duration();
        for (const Helper &helper : helpers_) {
            left = std::min(left, helper.end - std::chrono::steady_clock::now());
        }
        return static_cast<int>(std::max<int64_t>(std::chrono::ceil<std::chrono::milliseconds>(left).count(), 0));
    }

    std::vector<pollfd> Waits() const {
        std::vector<pollfd> waits{{kSocket, POLLIN, 0}};
        for (const Helper &helper : helpers_) {
            waits.push_back({helper.process.Fd(), POLLIN, 0});
            waits.push_back({helper.socket.Fd(), 0, 0});
        }
        return waits;
    }

    void Look(size_t index, short process, short socket) {
        if (process != 0) {
            waitpid(helpers_[index].pid, nullptr, 0);
            helpers_.erase(helpers_.begin() + static_cast<ptrdiff_t>(index));
        } else if (socket != 0 || std::chrono::steady_clock::now() >= helpers_[index].end) {
            Kill(helpers_[index]);
            helpers_[index].socket = Descriptor();
            helpers_[index].end = std::chrono::steady_clock::time_point::max();
        }
    }

    static void Kill(const Helper &helper) { syscall(SYS_pidfd_send_signal, helper.process.Fd(), SIGKILL, nullptr, 0); }

    // False when there will be no more orders.
    bool Obey() {
        StartRequest request{};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
        iovec part{&request, sizeof request};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        const ssize_t got = recvmsg(kSocket, &message, MSG_CMSG_CLOEXEC);
        Descriptor socket = Received(message);
        if (got == sizeof request && socket) {
            Start(request, std::move(socket));
        }
        return got > 0 || (got < 0 && errno == EINTR);
    }

    void Start(const StartRequest &request, Descriptor socket) {
        try {
            if (helpers_.size() >= kMostHelpers) {
                Fail(EAGAIN, "too many helpers");
            }
            const Ids ids = UserFor(request);
            const pid_t pid = fork();
            if (pid == 0) {
                Execute(request, socket, ids);
            }
            if (pid < 0) {
                Fail(errno, "fork");
            }
            Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
            if (!process) {
                kill(pid, SIGKILL);
                waitpid(pid, nullptr, 0);
                Fail(EMFILE, "pidfd_open");
            }
            helpers_.push_back(
                {pid, std::move(process), std::move(socket), std::chrono::steady_clock::now() + kLongestLife});
        } catch (const std::system_error &error) {
            Refuse(socket, error.code().value());
        }
    }

    std::vector<Helper> helpers_;
};

} // namespace

int RunStarter() {
    prctl(PR_SET_NAME, "tarn-unwind");
    KeepCapabilities({CAP_SETUID, CAP_SETGID, CAP_SYS_PTRACE, CAP_KILL});
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        Fail(errno, "to gain no privileges");
    }
    Starter().Run();
    return 0;
}

} // namespace host::unwind
