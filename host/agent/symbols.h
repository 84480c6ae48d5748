// The names of the process's functions. Nothing here allocates or locks: it may run in a signal handler.
#pragma once

#include <cstdint>
#include <span>

namespace agent {

// The function at an address, "" when none is known; returns how far behind its start the address is. A return address
// lies behind its call, possibly in the next function: ask for the byte before.
uint64_t FunctionAt(uint64_t address, std::span<char> name);

} // namespace agent
