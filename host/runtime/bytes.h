// The bytes of a message: a vector that leaves new bytes as they are, and whose memory the next message takes over.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <vector>

namespace host {

// Throws std::bad_alloc. A large block that is freed is kept for the next message, because malloc would give the pages
// back to the system, and each would be cleared and mapped anew.
void *AllocateForMessage(size_t size);
void FreeOfMessage(void *block) noexcept;
// Those that are kept.
void FreeKeptBlocks() noexcept;

template <class Byte>
struct MessageAllocator {
    using value_type = Byte;

    MessageAllocator() = default;
    template <class Other>
    explicit MessageAllocator(const MessageAllocator<Other> &) noexcept {}

    Byte *allocate(size_t count) { return static_cast<Byte *>(AllocateForMessage(count)); }
    void deallocate(Byte *bytes, size_t) noexcept { FreeOfMessage(bytes); }
    // What is read or encoded into a message overwrites it all, so nothing is cleared before.
    void construct(Byte *at) noexcept { ::new (at) Byte; }

    bool operator==(const MessageAllocator &) const = default;
    static_assert(sizeof(Byte) == 1);
};

using Bytes = std::vector<uint8_t, MessageAllocator<uint8_t>>;

} // namespace host
