#include "host/runtime/bytes.h"

#include <malloc.h>
#include <sched.h>

#include <array>
#include <atomic>
#include <cstdlib>

namespace host {
namespace {

constexpr size_t kLarge = 32 << 10; // smaller blocks malloc keeps itself
constexpr size_t kMostKept = 1 << 20;

// By processor and not by thread: so few blocks go round, in whose cache they are, however many threads there are.
constinit std::array<std::atomic<void *>, 16> kept = {};

std::atomic<void *> &KeptHere() {
    return kept[static_cast<unsigned>(sched_getcpu()) % kept.size()];
}

} // namespace

void *AllocateForMessage(size_t size) {
    if (size >= kLarge && size <= kMostKept) {
        void *const block = KeptHere().exchange(nullptr, std::memory_order_acquire);
        if (block != nullptr && malloc_usable_size(block) >= size) {
            return block;
        }
        free(block);
    }
    void *const block = malloc(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void FreeOfMessage(void *block) noexcept {
    const size_t size = malloc_usable_size(block);
    if (size >= kLarge && size <= kMostKept) {
        block = KeptHere().exchange(block, std::memory_order_acq_rel);
    }
    free(block);
}

void FreeKeptBlocks() noexcept {
    for (std::atomic<void *> &block : kept) {
        free(block.exchange(nullptr, std::memory_order_acquire));
    }
}

} // namespace host
