// The headers of captured frames.
#pragma once

#include <optional>
#include <utility>

#include "host/runtime/protocol.h"
#include "host/runtime/tapped_frame.h"

namespace ctl {

// Nothing for what is no frame.
inline std::optional<host::FrameHeader> HeaderOf(const host::TappedFrame &frame) {
    host::FrameParser parser(UINT32_MAX);
    if (frame.bytes.size() < host::kHeaderSize || parser.Feed(frame.bytes.first(host::kHeaderSize)) == 0 ||
        parser.ErrCode() != 0) {
        return std::nullopt;
    }
    return parser.Header();
}

inline bool IsRequest(const host::FrameHeader &header) {
    return header.kind == host::FrameKind::kRequest || header.kind == host::FrameKind::kOneway;
}

// Of a call, until it is answered: its connection and its id.
using CallKey = std::pair<uint64_t, uint64_t>;

inline CallKey KeyOf(const host::TappedFrame &frame, const host::FrameHeader &header) {
    return {frame.connection, header.id};
}

} // namespace ctl
