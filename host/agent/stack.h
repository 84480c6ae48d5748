// Call stacks of the process itself, and the functions at their addresses. Nothing here allocates or locks: it may run
// in a signal handler.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace agent {

// The calling thread's return addresses, the innermost first, from the function's caller's caller on. The number.
size_t CallStack(std::span<uint64_t> addresses);

// The addresses from where a signal interrupted its thread; `context` is the handler's ucontext_t.
size_t CallStackOf(void *context, std::span<uint64_t> addresses);

// The function at an address, "" when none is known; returns how far behind its start the address is. A return address
// lies behind its call, possibly in the next function: ask for the byte before.
uint64_t FunctionAt(uint64_t address, std::span<char> name);

} // namespace agent
