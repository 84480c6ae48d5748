// A thread of another process, stopped for as long as it takes to copy its registers and the top of its stack. All that
// takes longer, unwinding and looking up names, is done on the copy while the thread runs on.
#pragma once

#include <sys/user.h>

#include <chrono>
#include <cstdint>
#include <set>
#include <vector>

#include "host/osal/mutex.h"
#include "host/procfs/procfs.h"
#include "host/unwind/protocol.h"

namespace host::stacks {

struct Snapshot {
    std::vector<uint64_t> registers; // in the order of their DWARF numbers
    uint64_t programCounter = 0;
    uint64_t stackPointer = 0;
    std::vector<uint8_t> stack; // from the stack pointer on
    std::chrono::nanoseconds stopped{};
};

// As the kernel shows them to tracers, and in core files.
#if defined(__arm__)
using Registers = user_regs;
#else
using Registers = user_regs_struct;
#endif

// What a snapshot is made of: the registers first, then the stack of a process that can be looked into. Where none can
// be read, there is none.
void TakeRegisters(const Registers &regs, Snapshot &snapshot);
void ReadStack(uint32_t pid, Snapshot &snapshot);

// How long a thread is given to stop. It does so when it gets a CPU next, which may take a while on a busy machine; one
// that waits for a device may not stop at all. It is not held up by the attempt.
constexpr std::chrono::milliseconds kStopTimeout{5000};
constexpr std::chrono::milliseconds kBlockedTimeout{200};

// How long another tracer is waited for, which takes a snapshot as well or is a debugger.
constexpr std::chrono::milliseconds kTracedTimeout{500};

constexpr size_t kStackBytes = unwind::kMostStackBytes;

// Takes snapshots. One tracer at a time can have a thread, so a program has one of these.
class Tracer {
public:
    explicit Tracer(const procfs::Procfs &proc) : proc_(proc) {}
    Tracer(const Tracer &) = delete;
    Tracer &operator=(const Tracer &) = delete;

    const procfs::Procfs &Proc() const { return proc_; }

    // Requests for the same thread wait for each other. Throws std::system_error: ESRCH the thread has ended; EPERM it
    // may not be looked into, or a debugger has it; ETIMEDOUT it did not stop; ENOTSUP it runs code of another
    // architecture. The thread runs on in any case: should this process die meanwhile, the kernel lets go of it.
    Snapshot Take(uint32_t pid, uint32_t tid);

private:
    class Turn;

    const procfs::Procfs &proc_;
    Mutex mutex_;
    Condition free_;
    std::set<uint32_t> traced_ TARN_GUARDED_BY(mutex_);
};

} // namespace host::stacks
