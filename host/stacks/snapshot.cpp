#include "host/stacks/snapshot.h"

#include <elf.h>
#include <fmt/format.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <string>
#include <system_error>
#include <thread>

namespace host::stacks {

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void Fail(int error, uint32_t tid, const char *what) {
    throw std::system_error(error, std::generic_category(), "thread " + std::to_string(tid) + ": " + what);
}

// A thread that this one traces. Should it not have stopped, it is let go when this thread ends.
class Traced {
public:
    Traced(const procfs::Procfs &proc, uint32_t pid, uint32_t tid) : proc_(proc), pid_(pid), tid_(tid) {
        Seize();
        if (ptrace(PTRACE_INTERRUPT, Id(), nullptr, nullptr) != 0) {
            Fail(errno, tid, "may not be stopped");
        }
        WaitForStop();
    }
    ~Traced() {
        if (stopped_) {
            ptrace(PTRACE_DETACH, Id(), nullptr, reinterpret_cast<void *>(signal_));
        }
    }
    Traced(const Traced &) = delete;
    Traced &operator=(const Traced &) = delete;

    Clock::time_point StoppedAt() const { return stoppedAt_; }
    pid_t Id() const { return static_cast<pid_t>(tid_); }

private:
    // Another that has the thread, as a second daemon of this machine may, lets go of it soon.
    void Seize() {
        const auto start = Clock::now();
        for (bool wasFree = false; ptrace(PTRACE_SEIZE, Id(), nullptr, nullptr) != 0;) {
            const int error = errno;
            const bool isFree = error == EPERM && !HasTracer();
            if (error != EPERM || (isFree && wasFree) || Clock::now() - start > kTracedTimeout) {
                Fail(error, tid_, "may not be looked into");
            }
            wasFree = isFree;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    bool HasTracer() const {
        return procfs::FieldOf(proc_.Read(pid_, fmt::format("task/{}/status", tid_)), "TracerPid") != 0;
    }

    void WaitForStop() {
        const auto start = Clock::now();
        for (auto pause = std::chrono::microseconds(20);;
             pause = std::min(pause * 2, std::chrono::microseconds(1000))) {
            int status = 0;
            const pid_t got = waitpid(Id(), &status, __WALL | __WNOTHREAD | WNOHANG);
            if (got < 0 || (got > 0 && !WIFSTOPPED(status))) {
                Fail(ESRCH, tid_, "has ended");
            }
            if (got > 0) {
                stopped_ = true;
                stoppedAt_ = Clock::now();
                // One that was about to take a signal takes it when it runs on.
                signal_ = status >> 16 == PTRACE_EVENT_STOP ? 0 : WSTOPSIG(status);
                return;
            }
            const auto waited = Clock::now() - start;
            if (waited > kStopTimeout || (waited > kBlockedTimeout && IsBlocked())) {
                Fail(ETIMEDOUT, tid_, "did not stop");
            }
            std::this_thread::sleep_for(pause);
        }
    }

    bool IsBlocked() const { return proc_.ReadThread(pid_, tid_).state == 'D'; }

    const procfs::Procfs &proc_;
    const uint32_t pid_;
    const uint32_t tid_;
    bool stopped_ = false;
    long signal_ = 0;
    Clock::time_point stoppedAt_;
};

void ReadRegisters(const Traced &thread, Snapshot &snapshot) {
    Registers regs{};
    iovec io{&regs, sizeof regs};
    if (ptrace(PTRACE_GETREGSET, thread.Id(), reinterpret_cast<void *>(NT_PRSTATUS), &io) != 0) {
        Fail(errno, static_cast<uint32_t>(thread.Id()), "its registers");
    }
    if (io.iov_len != sizeof regs) {
        Fail(ENOTSUP, static_cast<uint32_t>(thread.Id()), "runs code of another architecture");
    }
    TakeRegisters(regs, snapshot);
}

Snapshot TakeOf(const procfs::Procfs &proc, uint32_t pid, uint32_t tid) {
    Snapshot snapshot;
    snapshot.stack.reserve(kStackBytes);
    Clock::time_point stoppedAt;
    {
        const Traced thread(proc, pid, tid);
        stoppedAt = thread.StoppedAt();
        ReadRegisters(thread, snapshot);
        ReadStack(pid, snapshot);
    }
    snapshot.stopped = Clock::now() - stoppedAt;
    return snapshot;
}

} // namespace

void TakeRegisters(const Registers &regs, Snapshot &snapshot) {
#if defined(__x86_64__)
    snapshot.registers = {regs.rax, regs.rdx, regs.rcx, regs.rbx, regs.rsi, regs.rdi, regs.rbp, regs.rsp, regs.r8,
                          regs.r9,  regs.r10, regs.r11, regs.r12, regs.r13, regs.r14, regs.r15, regs.rip};
    snapshot.programCounter = regs.rip;
    snapshot.stackPointer = regs.rsp;
#elif defined(__i386__)
    for (const long value :
         {regs.eax, regs.ecx, regs.edx, regs.ebx, regs.esp, regs.ebp, regs.esi, regs.edi, regs.eip}) {
        snapshot.registers.push_back(static_cast<uint32_t>(value));
    }
    snapshot.programCounter = static_cast<uint32_t>(regs.eip);
    snapshot.stackPointer = static_cast<uint32_t>(regs.esp);
#elif defined(__aarch64__)
    snapshot.registers.assign(std::begin(regs.regs), std::end(regs.regs));
    snapshot.registers.push_back(regs.sp);
    snapshot.programCounter = regs.pc;
    snapshot.stackPointer = regs.sp;
#elif defined(__arm__)
    snapshot.registers.assign(std::begin(regs.uregs), std::begin(regs.uregs) + 16);
    snapshot.programCounter = regs.uregs[15];
    snapshot.stackPointer = regs.uregs[13];
#else
#error "the registers of this architecture"
#endif
}

// Page by page, so that what lies below the stack's end is read although the end is nearer than wanted.
void ReadStack(uint32_t pid, Snapshot &snapshot) {
    static const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    snapshot.stack.resize(kStackBytes);
    std::vector<iovec> remote;
    for (uint64_t at = snapshot.stackPointer; at < snapshot.stackPointer + kStackBytes;) {
        const uint64_t end = std::min((at / page + 1) * page, snapshot.stackPointer + kStackBytes);
        remote.push_back({reinterpret_cast<void *>(static_cast<uintptr_t>(at)), static_cast<size_t>(end - at)});
        at = end;
    }
    const iovec local{snapshot.stack.data(), snapshot.stack.size()};
    const ssize_t got = process_vm_readv(static_cast<pid_t>(pid), &local, 1, remote.data(), remote.size(), 0);
    snapshot.stack.resize(got < 0 ? 0 : static_cast<size_t>(got));
}

// The turn to trace a thread.
class Tracer::Turn {
public:
    Turn(Tracer &of, uint32_t tid) : of_(of), tid_(tid) {
        MutexLock lock(of_.mutex_);
        of_.free_.Wait(lock, [this]() TARN_REQUIRES(of_.mutex_) { return of_.traced_.insert(tid_).second; });
    }
    ~Turn() {
        {
            const MutexLock lock(of_.mutex_);
            of_.traced_.erase(tid_);
        }
        of_.free_.NotifyAll();
    }
    Turn(const Turn &) = delete;
    Turn &operator=(const Turn &) = delete;

private:
    Tracer &of_;
    const uint32_t tid_;
};

Snapshot Tracer::Take(uint32_t pid, uint32_t tid) {
    // By a thread made for this: the kernel lets go of all that a thread traces when it ends, even of what has not
    // stopped yet.
    const Turn turn(*this, tid);
    Snapshot snapshot;
    std::exception_ptr failure;
    std::thread tracer([&] {
        try {
            snapshot = TakeOf(proc_, pid, tid);
        } catch (...) {
            failure = std::current_exception();
        }
    });
    tracer.join();
    if (failure != nullptr) {
        std::rethrow_exception(failure);
    }
    return snapshot;
}

} // namespace host::stacks
