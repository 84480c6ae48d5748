#include "host/runtime/bytes.h"

#include <malloc.h>

#include <cstdlib>
#include <utility>

namespace host {
namespace {

constexpr size_t kLarge = 32 << 10; // smaller blocks malloc keeps itself
constexpr size_t kMostKept = 1 << 20;

// Trivial, so that it is there still when the thread's other objects are gone, which may free messages.
struct Kept {
    void *block;
    bool ended;
};
constinit thread_local Kept kept{};

struct KeptUntilThreadEnds {
    ~KeptUntilThreadEnds() {
        kept.ended = true;
        free(std::exchange(kept.block, nullptr));
    }
    void Touch() {}
};
thread_local KeptUntilThreadEnds owner;

} // namespace

void *AllocateForMessage(size_t size) {
    if (size >= kLarge && kept.block != nullptr && size <= malloc_usable_size(kept.block)) {
        return std::exchange(kept.block, nullptr);
    }
    void *const block = malloc(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void FreeOfMessage(void *block) noexcept {
    const size_t size = malloc_usable_size(block);
    if (size >= kLarge && size <= kMostKept && !kept.ended) {
        owner.Touch(); // begins its life
        block = std::exchange(kept.block, block);
    }
    free(block);
}

} // namespace host
