// The states of a connection.
#pragma once

#include "host/runtime/states.h"

namespace host {

enum class LinkState : uint8_t {
    kNew,         // not in the loop yet
    kWaiting,     // nobody's; the loop tells when there is something to read
    kReading,     // of the thread that reads
    kReadingMore, // the same, and since it began the loop has told of more
    kPaused,      // nobody's; backpressure: nothing is read until there is room for more requests
    kDraining,    // nothing more is read; closed when the peer has taken what is unsent
    kClosed,      // nothing is read or sent; that it has ended is still to be told
    kEnded,
};

inline constexpr StateTable<LinkState, 8> kLinkStates = {
    "connection",
    {{
        {LinkState::kNew, "new", Next(LinkState::kWaiting, LinkState::kDraining, LinkState::kClosed)},
        {LinkState::kWaiting, "waiting",
         Next(LinkState::kReading, LinkState::kReadingMore, LinkState::kDraining, LinkState::kClosed)},
        {LinkState::kReading, "reading",
         Next(LinkState::kReadingMore, LinkState::kWaiting, LinkState::kPaused, LinkState::kDraining,
              LinkState::kClosed)},
        {LinkState::kReadingMore, "reading, more to come",
         Next(LinkState::kReading, LinkState::kWaiting, LinkState::kPaused, LinkState::kDraining, LinkState::kClosed)},
        {LinkState::kPaused, "paused", Next(LinkState::kWaiting, LinkState::kDraining, LinkState::kClosed)},
        {LinkState::kDraining, "draining", Next(LinkState::kClosed)},
        {LinkState::kClosed, "closed", Next(LinkState::kEnded)},
        {LinkState::kEnded, "ended", Next()},
    }}};
static_assert(kLinkStates.IsInOrder());

} // namespace host
