// Call stacks of other processes' threads, with the names of the functions.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/stacks/snapshot.h"

namespace host::stacks {

constexpr size_t kMaxFrames = 32;

struct Frame {
    uint64_t address = 0;
    std::string function; // demangled; empty where no symbol covers the address
    uint64_t offset = 0;  // from the function's start, or from the module's
    std::string module;   // file name of the program or library; empty where none is mapped

    // "Worker::Run(int)+0x1c"; "libfoo.so.1+0x4c10" without a function; "0x7f0012345678" without a module
    std::string Text() const;
};

struct Stack {
    std::vector<Frame> frames;          // innermost first; at most kMaxFrames
    std::chrono::nanoseconds stopped{}; // how long the thread was held up
};

// The process whose stacks are read, with its program and libraries as they are when it is made. For one thread.
class Process {
public:
    // The tracer outlives it. Throws std::system_error: ESRCH; EPERM for a process that may not be looked into; ENOTSUP
    // for the kernel's own.
    Process(Tracer &tracer, uint32_t pid);
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    // Throws what Tracer::Take does.
    Stack Read(uint32_t tid);

private:
    class Unwinder;
    Tracer &tracer_;
    const uint32_t pid_;
    const std::unique_ptr<Unwinder> unwinder_;
};

} // namespace host::stacks
