// The front of a core file, as the kernel pipes it: registers and signal of the thread that crashed, whose notes come
// first.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "host/stacks/snapshot.h"

namespace core {

struct Cause {
    int32_t code = 0; // si_code
    uint64_t address = 0;
};

struct CoreHead {
    std::vector<uint8_t> bytes;                       // as read: what takes the core wants them too
    std::optional<host::stacks::Registers> registers; // none of a program for another architecture
    std::optional<Cause> cause;
};

// Reads no further than it has to, and no more than kMostHeadBytes. What is no core file, or is cut off, tells nothing.
CoreHead ReadHead(int fd);

// The same, of bytes.
void ParseHead(CoreHead &head);

// For 64 Ki segments and the notes of the first thread.
constexpr size_t kMostHeadBytes = 8U << 20;

} // namespace core
