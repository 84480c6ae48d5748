#include "host/unwind/confinement.h"

#include <linux/capability.h>
#include <seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <memory>

#include "host/osal/error.h"

namespace host::unwind {

namespace {

using CapabilitySets = std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3>;

CapabilitySets Capabilities() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    CapabilitySets sets{};
    if (syscall(SYS_capget, &header, sets.data()) != 0) {
        Fail(errno, "capget");
    }
    return sets;
}

void Limit(__rlimit_resource resource, rlim_t most) {
    rlimit limit{};
    if (getrlimit(resource, &limit) != 0) {
        Fail(errno, "getrlimit");
    }
    limit.rlim_max = std::min(limit.rlim_max, most);
    limit.rlim_cur = std::min(limit.rlim_cur, limit.rlim_max);
    if (setrlimit(resource, &limit) != 0) {
        Fail(errno, "setrlimit");
    }
}

void LimitResources() {
    Limit(RLIMIT_AS, 512U << 20);
    Limit(RLIMIT_CPU, 2);
    Limit(RLIMIT_FSIZE, 256U << 20);
    Limit(RLIMIT_NOFILE, 256);
    Limit(RLIMIT_STACK, 8U << 20);
    Limit(RLIMIT_NPROC, 0);
    Limit(RLIMIT_CORE, 0);
}

class Filter {
public:
    // What is not listed fails.
    Filter() : context_(seccomp_init(SCMP_ACT_ERRNO(EPERM)), seccomp_release) {
        if (context_ == nullptr) {
            throw std::bad_alloc();
        }
    }
    void Add(uint32_t action, std::initializer_list<int> calls) {
        for (const int call : calls) {
            if (call != __NR_SCMP_ERROR) {
                Check(seccomp_rule_add(context_.get(), action, call, 0));
            }
        }
    }
    void Load() { Check(seccomp_load(context_.get())); }

private:
    static void Check(int result) {
        if (result != 0) {
            Fail(-result, "the filter of system calls");
        }
    }

    const std::unique_ptr<void, void (*)(scmp_filter_ctx)> context_;
};

void FilterSystemCalls() {
    Filter filter;
    filter.Add(SCMP_ACT_ALLOW, {SCMP_SYS(brk),          SCMP_SYS(clock_gettime),  SCMP_SYS(clock_gettime64),
                                SCMP_SYS(close),        SCMP_SYS(exit),           SCMP_SYS(exit_group),
                                SCMP_SYS(fcntl),        SCMP_SYS(fcntl64),        SCMP_SYS(fstat),
                                SCMP_SYS(fstat64),      SCMP_SYS(fstatat64),      SCMP_SYS(ftruncate),
                                SCMP_SYS(ftruncate64),  SCMP_SYS(futex),          SCMP_SYS(getrandom),
                                SCMP_SYS(lseek),        SCMP_SYS(madvise),        SCMP_SYS(memfd_create),
                                SCMP_SYS(mmap),         SCMP_SYS(mmap2),          SCMP_SYS(mprotect),
                                SCMP_SYS(mremap),       SCMP_SYS(munmap),         SCMP_SYS(newfstatat),
                                SCMP_SYS(openat2),      SCMP_SYS(poll),           SCMP_SYS(ppoll),
                                SCMP_SYS(pread64),      SCMP_SYS(pwrite64),       SCMP_SYS(read),
                                SCMP_SYS(rt_sigaction), SCMP_SYS(rt_sigprocmask), SCMP_SYS(rt_sigreturn),
                                SCMP_SYS(setitimer),    SCMP_SYS(sigreturn),      SCMP_SYS(statx),
                                SCMP_SYS(write),        SCMP_SYS(writev)});
    filter.Add(SCMP_ACT_KILL_PROCESS, {SCMP_SYS(accept),
                                       SCMP_SYS(accept4),
                                       SCMP_SYS(bind),
                                       SCMP_SYS(clone),
                                       SCMP_SYS(clone3),
                                       SCMP_SYS(connect),
                                       SCMP_SYS(execve),
                                       SCMP_SYS(execveat),
                                       SCMP_SYS(fork),
                                       SCMP_SYS(kill),
                                       SCMP_SYS(pidfd_open),
                                       SCMP_SYS(pidfd_send_signal),
                                       SCMP_SYS(ptrace),
                                       SCMP_SYS(process_vm_readv),
                                       SCMP_SYS(process_vm_writev),
                                       SCMP_SYS(rt_sigqueueinfo),
                                       SCMP_SYS(rt_tgsigqueueinfo),
                                       SCMP_SYS(sendmsg),
                                       SCMP_SYS(sendto),
                                       SCMP_SYS(socket),
                                       SCMP_SYS(socketpair),
                                       SCMP_SYS(tgkill),
                                       SCMP_SYS(tkill),
                                       SCMP_SYS(unshare),
                                       SCMP_SYS(vfork)});
    filter.Load();
}

} // namespace

void KeepCapabilities(std::initializer_list<unsigned> kept) {
    CapabilitySets wanted{};
    for (const unsigned capability : kept) {
        wanted[CAP_TO_INDEX(capability)].permitted |= CAP_TO_MASK(capability);
    }
    const CapabilitySets owned = Capabilities();
    for (size_t i = 0; i < wanted.size(); ++i) {
        wanted[i].permitted &= owned[i].permitted;
        wanted[i].effective = wanted[i].inheritable = wanted[i].permitted;
    }
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    if (prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) != 0 ||
        syscall(SYS_capset, &header, wanted.data()) != 0) {
        Fail(errno, "capset");
    }
    for (const unsigned capability : kept) {
        if (HasCapability(capability) && prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, capability, 0, 0) != 0) {
            Fail(errno, "an ambient capability");
        }
    }
}

bool HasCapability(unsigned capability) {
    return (Capabilities()[CAP_TO_INDEX(capability)].effective & CAP_TO_MASK(capability)) != 0;
}

void Confine() {
    LimitResources();
    KeepCapabilities({});
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        Fail(errno, "to gain no privileges");
    }
    FilterSystemCalls();
}

} // namespace host::unwind
