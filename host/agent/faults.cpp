// The recording of faults. What runs in the signal handler calls nothing but functions that may be called there, and
// allocates nothing; it works on an alternate stack, which an overflown stack needs.
#include "host/agent/faults.h"

#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <new>
#include <span>
#include <string_view>

#include "host/agent/lines.h"
#include "host/agent/own_maps.h"
#include "host/agent/registers.h"
#include "host/agent/stack.h"
#include "host/agent/symbols.h"
#include "host/blackbox/box.h"
#include "host/osal/directories.h"
#include "host/osal/log.h"
#include "tarn_sysdiag/agent.h"

namespace agent {

namespace {

using host::blackbox::Box;
using host::blackbox::Entry;
using host::blackbox::FaultHead;
using host::blackbox::FaultKind;
using host::blackbox::FaultStack;
using host::blackbox::kFrameNum;
using host::blackbox::StackFrame;

// All that the signal handler knows, to which nobody hands an object. It is set before the handlers are installed,
// except for the box, which shutting down takes away.
struct HandlerState {
    std::atomic<const Box *> box = nullptr;
    std::atomic<int> writerNum = 0;
    std::atomic<uint32_t> faultNum = 0;
    std::array<struct sigaction, kFaultSignals.size()> previous{};
    char agentName[sizeof FaultHead::agent]{};
    char processName[sizeof FaultHead::process]{};
};
constinit HandlerState handlerState;

// Cuts a text to fit; the rest becomes 0.
template <size_t kSize>
void Copy(char (&to)[kSize], std::string_view from) {
    const size_t length = std::min(from.size(), kSize - 1);
    memset(to, 0, kSize);
    memcpy(to, from.data(), length);
}

void AddRegisters(FaultHead &head, const ucontext_t &context) {
    static_assert(std::size(kRegisters) <= std::size(FaultHead{}.registers));
    for (const Register &shown : kRegisters) {
        auto &one = head.registers[head.registerNum++];
        Copy(one.name, shown.name);
        one.value = shown.In(context);
    }
}

void FillHead(FaultHead &head, FaultKind kind) {
    memset(&head, 0, sizeof head);
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    head.kind = kind;
    head.pid = static_cast<uint32_t>(getpid());
    head.tid = static_cast<uint32_t>(gettid());
    head.timeNs = static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
    Copy(head.agent, handlerState.agentName);
    Copy(head.process, handlerState.processName);
    prctl(PR_GET_NAME, head.thread);
}

// Names the files that the addresses lie in. The mappings of a file follow each other, the one of its start first.
void FillModules(FaultStack &stack) {
    OwnMaps maps;
    uint64_t start = 0;
    for (OwnMapping mapping; maps.Next(mapping);) {
        start = mapping.fileOffset == 0 ? mapping.start : start;
        for (StackFrame &frame : std::span(stack.frames, stack.frameNum)) {
            if (!mapping.path.empty() && mapping.Has(frame.address)) {
                const std::string_view path = WithoutDeleted(mapping.path);
                Copy(frame.module, path.substr(path.rfind('/') + 1));
                frame.moduleOffset = frame.address - start;
            }
        }
    }
}

// One look into a file serves all frames that follow each other in it.
void FillBuildIds(FaultStack &stack) {
    const StackFrame *last = nullptr;
    for (StackFrame &frame : std::span(stack.frames, stack.frameNum)) {
        if (last != nullptr && frame.address - frame.moduleOffset == last->address - last->moduleOffset) {
            frame.buildIdBytes = last->buildIdBytes;
            memcpy(frame.buildId, last->buildId, sizeof frame.buildId);
        } else if (frame.module[0] != 0) {
            frame.buildIdBytes = static_cast<uint8_t>(BuildIdAt(frame.address, frame.buildId));
        }
        last = &frame;
    }
}

// `isExact` when the first address is where the thread stopped rather than one that a call returns to.
void FillStack(FaultStack &stack, std::span<const uint64_t> addresses, bool isExact) {
    memset(&stack, 0, sizeof stack);
    stack.isCut = addresses.size() > kFrameNum ? 1 : 0;
    for (const uint64_t address : addresses.first(std::min<size_t>(addresses.size(), kFrameNum))) {
        const uint64_t back = isExact && stack.frameNum == 0 ? 0 : 1;
        StackFrame &frame = stack.frames[stack.frameNum++];
        frame.address = address;
        frame.offset = FunctionAt(address - back, frame.function) + back;
    }
    FillModules(stack);
    FillBuildIds(stack);
}

// One more than are recorded tells whether there are more.
using Addresses = std::array<uint64_t, kFrameNum + 1>;

// Keeps the box from being taken away while one writes to it.
class Writing {
public:
    Writing() {
        ++handlerState.writerNum;
        box_ = handlerState.box;
    }
    ~Writing() { --handlerState.writerNum; }
    Writing(const Writing &) = delete;
    Writing &operator=(const Writing &) = delete;

    const Box *OpenBox() const { return box_; }

private:
    const Box *box_;
};

void RecordSignal(int signal, const siginfo_t &info, void *context) {
    const Writing writing;
    if (writing.OpenBox() == nullptr) {
        return;
    }
    ++handlerState.faultNum;
    const Entry entry(*writing.OpenBox());
    if (!entry) {
        return;
    }
    FaultHead &head = entry.Head();
    FillHead(head, FaultKind::kException);
    AddRegisters(head, *static_cast<const ucontext_t *>(context));
    head.signal = signal;
    head.code = info.si_code;
    head.address = reinterpret_cast<uintptr_t>(info.si_addr);
    if (info.si_code <= 0) {
        head.address = 0; // sent by a process, not raised by an instruction
    }
    entry.SealHead();
    Addresses addresses;
    FillStack(entry.Stack(), {addresses.data(), CallStackOf(context, addresses)}, true);
    entry.SealStack();
}

const struct sigaction &PreviousOf(int signal) {
    size_t i = 0;
    while (kFaultSignals[i] != signal) {
        ++i;
    }
    return handlerState.previous[i];
}

// Lets what handled the signal before have it. The default action needs the signal once more: an instruction that
// raised it does so again when the handler returns; one that was sent is sent again.
void PassOn(int signal, siginfo_t *info, void *context) {
    const struct sigaction &before = PreviousOf(signal);
    if ((before.sa_flags & SA_SIGINFO) != 0) {
        before.sa_sigaction(signal, info, context);
    } else if (before.sa_handler == SIG_DFL) {
        sigaction(signal, &before, nullptr);
        if (info->si_code <= 0) {
            raise(signal);
        }
    } else if (before.sa_handler != SIG_IGN) {
        before.sa_handler(signal);
    }
}

void OnSignal(int signal, siginfo_t *info, void *context) {
    GiveUpWalk(signal);
    const int error = errno;
    RecordSignal(signal, *info, context);
    PassOn(signal, info, context);
    errno = error;
}

void Install() {
    struct sigaction action {};
    action.sa_sigaction = OnSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    for (const int signal : kFaultSignals) {
        sigaddset(&action.sa_mask, signal);
    }
    for (size_t i = 0; i < kFaultSignals.size(); ++i) {
        sigaction(kFaultSignals[i], nullptr, &handlerState.previous[i]); // known before the first signal
        sigaction(kFaultSignals[i], &action, nullptr);
    }
}

// Leaves alone what the application has installed since.
void Uninstall() {
    for (size_t i = 0; i < kFaultSignals.size(); ++i) {
        struct sigaction now {};
        sigaction(kFaultSignals[i], nullptr, &now);
        if ((now.sa_flags & SA_SIGINFO) != 0 && now.sa_sigaction == OnSignal) {
            sigaction(kFaultSignals[i], &handlerState.previous[i], nullptr);
        }
    }
}

// A thread's stack for signal handlers, with a page below it that nobody may touch.
class AlternateStack {
public:
    AlternateStack() {
        stack_t before{};
        if (sigaltstack(nullptr, &before) == 0 && (before.ss_flags & SS_DISABLE) == 0) {
            return; // the application has one
        }
        memory_ = mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
        if (memory_ == MAP_FAILED) {
            throw std::bad_alloc();
        }
        mprotect(memory_, kGuardBytes, PROT_NONE);
        stack_t stack{};
        stack.ss_sp = static_cast<char *>(memory_) + kGuardBytes;
        stack.ss_size = kBytes - kGuardBytes;
        sigaltstack(&stack, nullptr);
    }
    ~AlternateStack() {
        if (memory_ != nullptr) {
            stack_t none{};
            none.ss_flags = SS_DISABLE;
            sigaltstack(&none, nullptr);
            munmap(memory_, kBytes);
        }
    }
    AlternateStack(const AlternateStack &) = delete;
    AlternateStack &operator=(const AlternateStack &) = delete;

private:
    static constexpr size_t kGuardBytes = 4096;
    static constexpr size_t kBytes = 192 << 10;

    void *memory_ = nullptr;
};

void PrepareThread() {
    static thread_local const AlternateStack stack;
    static_cast<void>(stack);
}

// Appends to a text as far as there is room.
template <size_t kSize>
void Append(char (&to)[kSize], std::string_view text) {
    const size_t length = strnlen(to, kSize - 1);
    memcpy(to + length, text.data(), std::min(text.size(), kSize - 1 - length));
}

template <size_t kSize>
void AppendNumber(char (&to)[kSize], unsigned number) {
    char digits[12];
    size_t at = sizeof digits;
    do {
        digits[--at] = static_cast<char>('0' + number % 10);
        number /= 10;
    } while (number != 0);
    Append(to, {digits + at, sizeof digits - at});
}

} // namespace

Faults::Faults(const std::string &name, const std::filesystem::path &directory) {
    try {
        Copy(handlerState.agentName, name);
        char comm[16] = {};
        prctl(PR_GET_NAME, comm);
        std::string_view text;
        Copy(handlerState.processName, Lines("/proc/self/comm").Next(text) ? text : std::string_view(comm));
        PrepareThread();
        uint64_t address = 0;
        CallStack({&address, 1});               // the unwinder sets itself up at its first use
        host::MakeDirectories(directory, 0755); // what keeps it from that, the box says
        std::filesystem::path aside;
        handlerState.box = new Box(host::blackbox::FileOf(directory, geteuid()), aside);
        if (!aside.empty()) {
            host::Log().error("agent {}: what was in the place of the black box is none, and is now {}", name,
                              aside.string());
        }
        Install();
    } catch (const std::exception &error) {
        host::Log().error("agent {}: no fault will be recorded: {}", name, error.what());
    }
}

Faults::~Faults() {
    const std::unique_ptr<const Box> box(handlerState.box.exchange(nullptr));
    if (box == nullptr) {
        return;
    }
    Uninstall();
    while (handlerState.writerNum != 0) {
        usleep(1000);
    }
}

uint32_t FaultNum() {
    return handlerState.faultNum;
}

} // namespace agent

uint32_t TarnAgent_PrepareThread(void) {
    try {
        agent::PrepareThread();
        return 0;
    } catch (const std::bad_alloc &) {
        return ENOMEM;
    }
}

void TarnAgent_AssertionFailed(const char *expression, const char *file, unsigned line, const char *function) {
    const agent::Writing writing;
    if (writing.OpenBox() == nullptr) {
        return;
    }
    ++agent::handlerState.faultNum;
    const agent::Entry entry(*writing.OpenBox());
    if (!entry) {
        return;
    }
    agent::FaultHead &head = entry.Head();
    agent::FillHead(head, agent::FaultKind::kAssertion);
    agent::Append(head.text, expression);
    agent::Append(head.text, " in ");
    agent::Append(head.text, function);
    agent::Append(head.text, ", ");
    agent::Append(head.text, file);
    agent::Append(head.text, ":");
    agent::AppendNumber(head.text, line);
    entry.SealHead();
    agent::Addresses addresses;
    agent::FillStack(entry.Stack(), {addresses.data(), agent::CallStack(addresses)}, false);
    entry.SealStack();
}
