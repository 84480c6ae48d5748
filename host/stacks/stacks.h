// Call stacks of other processes' threads, with the names of the functions.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "host/stacks/helper.h"
#include "host/stacks/helpers.h"
#include "host/stacks/snapshot.h"
#include "host/unwind/protocol.h"

namespace host::stacks {

constexpr size_t kMaxFrames = unwind::kMostFrames;

struct Stack {
    std::vector<Frame> frames;          // innermost first; at most kMaxFrames
    std::chrono::nanoseconds stopped{}; // how long the thread was held up
};

// The process whose stacks are read. For one thread.
class Process {
public:
    // The tracer and the helpers outlive it. Throws std::system_error: ESRCH; EPERM for a process that may not be
    // looked into; ENOTSUP for the kernel's own, or where there are no helpers.
    Process(Tracer &tracer, Helpers &helpers, uint32_t pid, Deadline deadline);

    // Throws what Tracer::Take does. Where the thread can't be unwound, by the deadline or at all, there is the frame
    // that it is in, without names.
    Stack Read(uint32_t tid);

    // Of a thread whose registers and stack are known.
    Stack Unwind(const Snapshot &snapshot);

private:
    Tracer &tracer_;
    const uint32_t pid_;
    Conversation conversation_;
};

} // namespace host::stacks
