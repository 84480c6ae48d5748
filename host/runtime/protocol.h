// The frames that cross a connection. Each is a header of 136 bytes and a payload; all numbers are little-endian:
//
//   offset size
//        0    4  magic, "TRPC"
//        4    2  version, 1
//        6    2  kind: 1 request, 2 one-way request, 3 reply, 4 error, 5 cancel
//        8    8  call id, the client's; a reply, error or cancel repeats it, 0 where the server could not tell it
//       16    4  type hash of the request type; a reply or error repeats it
//       20    4  requests: what is left of the deadline, in ms; replies: length of the explanation; else 0
//       24    4  requests: what the caller takes besides a message, 1 for an explanation; errors: the status that the
//                method returned; else 0
//       28    4  errors: errno value, when the runtime and not the method has failed; else 0
//       32    4  length of the payload
//       36    4  0
//       40   32  requests: service, NUL-padded; else 0
//       72   64  requests: method, NUL-padded; else 0
//      136       payload: a VELTO message, and behind a reply's its explanation; of an error, its text in UTF-8
//
// A method without reply answers a request with an empty reply. One-way requests are not answered, except that any side
// may send an error before it closes a connection on which it can't find the next frame. A cancel says that the client
// takes no answer any more to the request of that id; it is not answered, and neither need the request be.
//
// An explanation is UTF-8 and says why the result in a reply is a failure. It is part of the payload's length but not
// of the message. Only a request that takes one may be answered with one, so peers that know of none get none: they
// send 0 as what they take and as an explanation's length, and look at neither.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/runtime/bytes.h"

namespace host {

constexpr size_t kHeaderSize = 136;
constexpr size_t kServiceSize = 32;
constexpr size_t kMethodSize = 64;

enum class FrameKind : uint16_t { kRequest = 1, kOneway, kReply, kError, kCancel };

// What a caller takes besides a message, a bit for each.
constexpr uint32_t kTakesExplanation = 1;

struct FrameHeader {
    FrameKind kind = FrameKind::kRequest;
    uint64_t id = 0;
    uint32_t typeHash = 0;
    uint32_t deadlineMs = 0;      // of all but replies
    uint32_t explanationSize = 0; // of replies
    uint32_t takes = 0;           // of requests
    uint32_t status = 0;          // of all but requests
    uint32_t errCode = 0;
    uint32_t length = 0;
    char service[kServiceSize + 1] = {};
    char method[kMethodSize + 1] = {};
};

struct Frame {
    FrameHeader header;
    Bytes payload;
};

void WriteHeader(const FrameHeader &header, std::span<uint8_t, kHeaderSize> bytes);

// A frame as the bytes to send.
std::vector<uint8_t> MakeFrame(const FrameHeader &header, std::span<const uint8_t> payload);

// Tells a peer why its connection is refused or ends.
std::vector<uint8_t> MakeRefusal(uint32_t errCode, std::string_view why);

// Finds the frames in a stream of bytes that arrives in any pieces and from anyone. Memory is taken as the payload
// arrives, not as the header promises.
class FrameParser {
public:
    explicit FrameParser(uint32_t payloadLimit) : payloadLimit_(payloadLimit) {}

    // Takes bytes up to the end of a header or of a frame, and says how many. Takes none while a frame is waiting or
    // after a bad one.
    size_t Feed(std::span<const uint8_t> bytes);

    // True once for each header, before its payload is taken.
    bool IsNewHeader() { return std::exchange(isNewHeader_, false); }
    // The payload of this header is read and not kept: the frame comes without it.
    void DropPayload() { isDropped_ = true; }

    // Where the rest of a large payload may be read to, in the place of Feed; empty when there is no such rest.
    std::span<uint8_t> Room();
    void Filled(size_t count) { have_ += count; }

    bool HasFrame() const { return error_ == 0 && headerSize_ == kHeaderSize && have_ == frame_.header.length; }
    Frame Take();

    // True between two frames.
    bool AtStart() const { return headerSize_ == 0; }

    // After bytes that are no frame: an errno value, 74 or 90, and what is wrong. There is no way on. The header is
    // known after 90, a payload beyond the limit.
    uint32_t ErrCode() const { return error_; }
    const std::string &Reason() const { return reason_; }
    const FrameHeader &Header() const { return frame_.header; }

private:
    size_t FeedHeader(std::span<const uint8_t> bytes);
    void CheckStart();
    void ReadHeader();
    void Refuse(uint32_t error, std::string reason);

    const uint32_t payloadLimit_;
    uint8_t headerBytes_[kHeaderSize] = {};
    size_t headerSize_ = 0;
    Frame frame_;
    bool isNewHeader_ = false;
    bool isDropped_ = false;
    size_t have_ = 0; // of the payload; the vector may be ahead
    uint32_t error_ = 0;
    std::string reason_;
};

// The text of an error frame or an explanation, fit to be shown: of bounded length and without control characters.
std::string ErrorText(std::span<const uint8_t> text);

// Takes the explanation off a reply's payload, which leaves the message. Nothing when the payload is shorter than that.
std::optional<std::string> TakeExplanation(Frame &reply);

} // namespace host
