// Any bytes to the runtime's frame parser, in pieces of any size.
//
// Input: payload limit (2), piece sizes (4, used in turn; 0 stands for as much as the parser has room for), stream.
#include <algorithm>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "host/runtime/protocol.h"

using host::Frame;
using host::FrameParser;

namespace {

// What a stream comes to.
struct Outcome {
    std::vector<uint8_t> frames; // of whole frames, as this side would send them
    uint32_t errCode = 0;
    std::string reason;
    bool atStart = false;
};

void CheckText(const std::string &text) {
    FUZZ_CHECK(text.size() <= 1024, "a text of %zu bytes", text.size());
    FUZZ_CHECK(
        std::none_of(text.begin(), text.end(), [](char c) { return static_cast<uint8_t>(c) < ' ' || c == 0x7F; }),
        "a text with a control character");
}

void CheckExplanation(Frame frame) {
    const size_t whole = frame.payload.size();
    const uint32_t size = frame.header.explanationSize;
    FUZZ_CHECK(size == 0 || frame.header.kind == host::FrameKind::kReply, "an explanation of %u bytes in no reply",
               size);
    const auto explanation = host::TakeExplanation(frame);
    FUZZ_CHECK(explanation.has_value() == (size <= whole), "an explanation of %u bytes in %zu", size, whole);
    FUZZ_CHECK(frame.payload.size() == whole - (explanation ? size : 0), "a message of %zu bytes in %zu",
               frame.payload.size(), whole);
    CheckText(explanation.value_or(""));
}

void CheckFrame(const Frame &frame, uint32_t limit) {
    FUZZ_CHECK(frame.payload.size() == frame.header.length && frame.payload.size() <= limit,
               "a payload of %zu bytes for a header's %u, limit %u", frame.payload.size(), frame.header.length, limit);
    CheckText(host::ErrorText(frame.payload));
    CheckExplanation(frame);
}

class Reader {
public:
    Reader(const uint8_t *data, size_t size, uint32_t limit) : stream_(data, size), parser_(limit), limit_(limit) {}

    // Hands the stream over in pieces of the given sizes.
    Outcome Read(const uint8_t *pieces, size_t pieceNum) {
        for (size_t i = 0; at_ < stream_.size && parser_.ErrCode() == 0; ++i) {
            const uint8_t piece = pieces[i % pieceNum];
            const size_t taken = piece == 0 ? ReadIntoRoom() : FeedPiece(piece);
            at_ += taken;
            TakeFrame();
        }
        TakeFrame(); // what the last byte completed
        outcome_.errCode = parser_.ErrCode();
        outcome_.reason = parser_.Reason();
        outcome_.atStart = parser_.AtStart();
        return outcome_;
    }

private:
    size_t FeedPiece(size_t size) {
        const fuzz::Block piece(stream_.data() + at_, std::min(size, stream_.size - at_));
        const size_t taken = parser_.Feed({piece.data(), piece.size});
        FUZZ_CHECK(taken > 0 && taken <= piece.size, "%zu bytes taken of %zu", taken, piece.size);
        return taken;
    }

    // As a connection that reads the rest of a payload into its place; it feeds where there is none.
    size_t ReadIntoRoom() {
        const auto room = parser_.Room();
        if (room.empty()) {
            return FeedPiece(stream_.size - at_);
        }
        FUZZ_CHECK(room.size() <= limit_, "room for %zu bytes, limit %u", room.size(), limit_);
        const size_t count = std::min(room.size(), stream_.size - at_);
        std::copy_n(stream_.data() + at_, count, room.begin());
        parser_.Filled(count);
        return count;
    }

    void TakeFrame() {
        if (!parser_.HasFrame()) {
            return;
        }
        const uint8_t byte = 0;
        FUZZ_CHECK(parser_.Feed({&byte, 1}) == 0, "bytes are taken while a frame waits");
        const Frame frame = parser_.Take();
        CheckFrame(frame, limit_);
        const auto bytes = host::MakeFrame(frame.header, frame.payload);
        outcome_.frames.insert(outcome_.frames.end(), bytes.begin(), bytes.end());
    }

    const fuzz::Block stream_;
    size_t at_ = 0;
    FrameParser parser_;
    const uint32_t limit_;
    Outcome outcome_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr size_t kPrefix = 6;
    if (size < kPrefix) {
        return -1;
    }
    const uint32_t limit = static_cast<uint32_t>(data[0] | data[1] << 8);
    const uint8_t *const stream = data + kPrefix;
    const size_t length = size - kPrefix;
    const Outcome pieces = Reader(stream, length, limit).Read(data + 2, 4);
    const uint8_t few = length <= 1024 ? 1 : 251; // byte by byte where that takes no time
    const Outcome bytes = Reader(stream, length, limit).Read(&few, 1);
    const uint8_t all = 0;
    const Outcome whole = Reader(stream, length, limit).Read(&all, 1);
    for (const Outcome *other : {&bytes, &whole}) {
        FUZZ_CHECK(pieces.frames == other->frames && pieces.errCode == other->errCode, "pieces decide the outcome");
        FUZZ_CHECK(pieces.atStart == other->atStart || pieces.errCode != 0, "pieces decide where a frame ends");
    }
    FUZZ_CHECK(pieces.frames.size() <= length && std::equal(pieces.frames.begin(), pieces.frames.end(), stream),
               "a frame that is read and written is not the same");
    FUZZ_CHECK((pieces.errCode == 0) == pieces.reason.empty(), "an error without a reason, or the other way");
    return 0;
}
