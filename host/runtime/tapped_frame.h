// A copy of a frame that a server received or sent, and the answer of Capture, which has such frames one behind the
// other. All numbers are little-endian:
//
//   offset size
//        0    8  frames that were dropped since the answer before
//        8       the frames, each
//        0    8  when, in ns since 1970
//        8    8  number of the connection, from 1
//       16    4  process of the client
//       20    4  its user
//       24    4  0 received, 1 sent by the server
//       28    4  length of the frame
//       32    4  how many bytes of it follow
//       36       the bytes
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/clock/clocks.h"

namespace host {

enum class Direction : uint32_t { kReceived, kSent };

struct TappedFrame {
    WallTime time = {};
    uint64_t connection = 0;
    uint32_t process = 0;
    uint32_t user = 0;
    Direction direction = Direction::kReceived;
    uint32_t length = 0;                 // of the frame
    std::span<const uint8_t> bytes = {}; // its first ones
};

struct Tapped {
    uint64_t dropped = 0;
    std::vector<TappedFrame> frames; // whose bytes are the answer's
};

// As the answer has it.
std::string TextOf(const TappedFrame &frame);
std::string TextOf(uint64_t dropped);

// Nothing for what is no answer of Capture.
std::optional<Tapped> ReadTapped(std::span<const uint8_t> answer);

} // namespace host
