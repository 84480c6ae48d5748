// What carrying peers' objects to native records takes, whatever the peer.
#pragma once

#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace bench {

inline void RequireSize(size_t size, size_t expected) {
    if (size != expected) {
        throw std::runtime_error("a peer's message has " + std::to_string(size) + " elements in a place for " +
                                 std::to_string(expected));
    }
}

// Native arrays come from malloc, for the library's release to free; there are none without elements.
template <class Element>
Element *NewArray(size_t count) {
    return count == 0 ? nullptr : static_cast<Element *>(malloc(count * sizeof(Element)));
}

inline char *CopyText(const void *text, size_t length) {
    char *const copy = NewArray<char>(length + 1);
    memcpy(copy, text, length);
    copy[length] = 0;
    return copy;
}

} // namespace bench
