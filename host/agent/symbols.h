// The names of the process's functions. Nothing here allocates or locks: it may run in a signal handler.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace agent {

// The function at an address, "" when none is known; returns how far behind its start the address is. A return address
// lies behind its call, possibly in the next function: ask for the byte before.
uint64_t FunctionAt(uint64_t address, std::span<char> name);

// The bytes of the build id of what is mapped at an address; 0 where it has none.
size_t BuildIdAt(uint64_t address, std::span<uint8_t> id);

// Without what the kernel says of a file that has no name any more.
std::string_view WithoutDeleted(std::string_view path);

} // namespace agent
