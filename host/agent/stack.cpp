#include "host/agent/stack.h"

#include <csetjmp>
#include <csignal>

#include <ucontext.h>
#include <unwind.h>

#include "host/agent/own_maps.h"

namespace agent {

namespace {

// What a walk of this thread ends with that meets memory that can't be read. It has its place from the thread's start:
// making one may allocate.
[[gnu::tls_model("initial-exec")]] constinit thread_local sigjmp_buf *endOfWalk = nullptr;

class Walk {
public:
    explicit Walk(std::span<uint64_t> addresses) : addresses_(addresses) {}

    // What isn't asked for: as many of the innermost frames, or all up to the one that stands at an address.
    void SkipFrames(int number) { skip_ = number; }
    void SkipUntil(uint64_t address) { until_ = address; }

    void Take(uint64_t address) {
        if (count_ < addresses_.size()) {
            addresses_[count_++] = address;
        }
    }

    [[gnu::always_inline]] void Run() { _Unwind_Backtrace(TakeFrame, this); }

    size_t Count() const { return count_; }

private:
    static _Unwind_Reason_Code TakeFrame(_Unwind_Context *frame, void *self) {
        Walk &walk = *static_cast<Walk *>(self);
        const uint64_t address = _Unwind_GetIP(frame);
        if (address == 0) {
            return _URC_END_OF_STACK;
        }
        if (walk.skip_ > 0) {
            --walk.skip_;
        } else if (walk.until_ != 0) {
            walk.until_ = address == walk.until_ ? 0 : walk.until_;
        } else {
            walk.Take(address);
        }
        return walk.count_ == walk.addresses_.size() ? _URC_END_OF_STACK : _URC_NO_REASON;
    }

    const std::span<uint64_t> addresses_;
    size_t count_ = 0;
    int skip_ = 0;
    uint64_t until_ = 0;
};

// Runs what may meet memory that can't be read, and ends it there.
template <class Function>
void RunOnAnyStack(Function function) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGSEGV);
    sigaddset(&signals, SIGBUS);
    sigjmp_buf end;
    if (sigsetjmp(end, 1) == 0) { // a jump back blocks the signals again
        endOfWalk = &end;
        pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
        function();
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    }
    endOfWalk = nullptr;
}

#if defined(__x86_64__) || defined(__i386__)
#if defined(__x86_64__)
constexpr int kPc = REG_RIP, kSp = REG_RSP;
#else
constexpr int kPc = REG_EIP, kSp = REG_ESP;
#endif
uint64_t PcOf(const ucontext_t &context) {
    return static_cast<uintptr_t>(context.uc_mcontext.gregs[kPc]);
}

// Undoes a call to where there is no code, to which there is no way back but the return address.
uint64_t UndoCall(ucontext_t &context) {
    auto &pc = context.uc_mcontext.gregs[kPc], &sp = context.uc_mcontext.gregs[kSp];
    const uintptr_t next = *reinterpret_cast<const uintptr_t *>(sp);
    pc = static_cast<greg_t>(next - 1); // within the call: what is behind it may be another function
    sp += static_cast<greg_t>(sizeof next);
    return next;
}
#elif defined(__aarch64__)
uint64_t PcOf(const ucontext_t &context) {
    return context.uc_mcontext.pc;
}

uint64_t UndoCall(ucontext_t &context) {
    const uint64_t next = context.uc_mcontext.regs[30];
    context.uc_mcontext.pc = next - 4;
    return next;
}
#elif defined(__arm__)
uint64_t PcOf(const ucontext_t &context) {
    return context.uc_mcontext.arm_pc;
}

uint64_t UndoCall(ucontext_t &context) {
    const unsigned long next = context.uc_mcontext.arm_lr & ~1UL; // without the bit for Thumb code
    context.uc_mcontext.arm_pc = next;
    return next;
}
#else
#error "where a signal interrupts its thread is not known for this processor"
#endif

bool IsCode(uint64_t address) {
    OwnMaps maps;
    for (OwnMapping mapping; maps.Next(mapping);) {
        if (mapping.Has(address)) {
            return mapping.isExecutable;
        }
    }
    return false;
}

} // namespace

[[gnu::noinline]] size_t CallStack(std::span<uint64_t> addresses) {
    Walk walk(addresses);
    walk.SkipFrames(2); // this function, and the one that asks
    walk.Run();
    return walk.Count();
}

// The unwinder comes to where the signal interrupted by the handler's context.
size_t CallStackOf(void *context, std::span<uint64_t> addresses) {
    ucontext_t &interrupted = *static_cast<ucontext_t *>(context);
    const mcontext_t asItWas = interrupted.uc_mcontext;
    Walk walk(addresses);
    walk.Take(PcOf(interrupted));
    RunOnAnyStack([&] {
        if (!IsCode(PcOf(interrupted))) {
            walk.Take(UndoCall(interrupted));
        }
        walk.SkipUntil(PcOf(interrupted));
        walk.Run();
    });
    interrupted.uc_mcontext = asItWas;
    return walk.Count();
}

void GiveUpWalk(int signal) {
    if (endOfWalk != nullptr && (signal == SIGSEGV || signal == SIGBUS)) {
        siglongjmp(*endOfWalk, 1);
    }
}

} // namespace agent
