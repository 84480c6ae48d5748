// Call stacks of the process itself. Nothing here allocates or locks: it may run in a signal handler.
//
// The compiler's own unwinder walks them, which the application's exceptions use too. It finds an address's unwinding
// data by what the C library keeps for signal handlers (since glibc 2.35; before, under the loader's lock, so that a
// fault within the loader may hang), and believes what it reads: a walk over a stack that was written over ends where
// memory can't be read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace agent {

// The calling thread's return addresses, the innermost first, from the function's caller's caller on. The number.
size_t CallStack(std::span<uint64_t> addresses);

// For the handler of a signal: the addresses from where it interrupted its thread; `context` is its ucontext_t, and
// SIGSEGV and SIGBUS come to a handler that begins with GiveUpWalk.
size_t CallStackOf(void *context, std::span<uint64_t> addresses);

// When the signal was raised by a walk of this thread, ends the walk and does not return.
void GiveUpWalk(int signal);

} // namespace agent
