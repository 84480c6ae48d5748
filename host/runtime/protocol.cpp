#include "host/runtime/protocol.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "host/osal/hex.h"
#include "velto/bytes.h"

namespace host {
namespace {

constexpr uint32_t kMagic = 0x43505254; // "TRPC"
constexpr uint16_t kVersion = 1;

enum Offset : size_t {
    kMagicAt = 0,
    kVersionAt = 4,
    kKindAt = 6,
    kIdAt = 8,
    kTypeHashAt = 16,
    kDeadlineAt = 20,
    kStatusAt = 24,
    kErrCodeAt = 28,
    kLengthAt = 32,
    kReservedAt = 36,
    kServiceAt = 40,
    kMethodAt = 72,
};
static_assert(kMethodAt + kMethodSize == kHeaderSize);

// Payloads grow by at least this much at a time.
constexpr size_t kStep = 256 << 10;
// What is left of a payload is read in place from here on; less may come in one read with the next frame.
constexpr size_t kInPlace = 16 << 10;
// As long as the longest field.
constexpr uint8_t kNuls[kMethodSize] = {};

// False unless `field` is printable text with nothing but NULs behind it.
bool IsName(const uint8_t *field, size_t size) {
    const size_t length = strnlen(reinterpret_cast<const char *>(field), size);
    return std::all_of(field, field + length, [](uint8_t c) { return c > 0x20 && c < 0x7F; }) &&
           memcmp(field + length, kNuls, size - length) == 0;
}

} // namespace

void WriteHeader(const FrameHeader &header, std::span<uint8_t, kHeaderSize> bytes) {
    uint8_t *const at = bytes.data();
    memset(at, 0, kHeaderSize);
    velto::Store(at + kMagicAt, kMagic);
    velto::Store(at + kVersionAt, kVersion);
    velto::Store(at + kKindAt, static_cast<uint16_t>(header.kind));
    velto::Store(at + kIdAt, header.id);
    velto::Store(at + kTypeHashAt, header.typeHash);
    velto::Store(at + kDeadlineAt, header.kind == FrameKind::kReply ? header.explanationSize : header.deadlineMs);
    velto::Store(at + kStatusAt, header.kind == FrameKind::kRequest ? header.takes : header.status);
    velto::Store(at + kErrCodeAt, header.errCode);
    velto::Store(at + kLengthAt, header.length);
    memcpy(at + kServiceAt, header.service, strnlen(header.service, kServiceSize));
    memcpy(at + kMethodAt, header.method, strnlen(header.method, kMethodSize));
}

std::vector<uint8_t> MakeFrame(const FrameHeader &header, std::span<const uint8_t> payload) {
    std::vector<uint8_t> bytes(kHeaderSize + payload.size());
    FrameHeader complete = header;
    complete.length = static_cast<uint32_t>(payload.size());
    WriteHeader(complete, std::span(bytes).first<kHeaderSize>());
    std::copy(payload.begin(), payload.end(), bytes.begin() + kHeaderSize);
    return bytes;
}

std::vector<uint8_t> MakeRefusal(uint32_t errCode, std::string_view why) {
    FrameHeader header;
    header.kind = FrameKind::kError;
    header.errCode = errCode;
    const std::string text = fmt::format("connection refused: {}", why);
    return MakeFrame(header, {reinterpret_cast<const uint8_t *>(text.data()), text.size()});
}

size_t FrameParser::Feed(std::span<const uint8_t> bytes) {
    if (error_ != 0) {
        return 0;
    }
    if (headerSize_ < kHeaderSize) {
        return FeedHeader(bytes);
    }
    const auto from = bytes.first(std::min(bytes.size(), frame_.header.length - have_));
    if (!isDropped_) {
        frame_.payload.reserve(std::min<size_t>(frame_.header.length, kStep));
        frame_.payload.resize(have_ + from.size());
        std::copy(from.begin(), from.end(), frame_.payload.begin() + static_cast<ptrdiff_t>(have_));
    }
    have_ += from.size();
    return from.size();
}

size_t FrameParser::FeedHeader(std::span<const uint8_t> bytes) {
    const size_t count = std::min(bytes.size(), kHeaderSize - headerSize_);
    std::copy_n(bytes.begin(), count, headerBytes_ + headerSize_);
    headerSize_ += count;
    CheckStart();
    if (error_ == 0 && headerSize_ == kHeaderSize) {
        ReadHeader();
        isNewHeader_ = error_ == 0;
    }
    return count;
}

// A peer of another kind is told so at its first bytes; it may never send as many as a header has.
void FrameParser::CheckStart() {
    uint8_t expected[4];
    velto::Store(expected, kMagic);
    if (memcmp(headerBytes_, expected, std::min(headerSize_, sizeof expected)) != 0) {
        Refuse(EBADMSG, fmt::format("not a frame: it starts with {}, expected 54 52 50 43 (\"TRPC\")",
                                    Hex(std::span(headerBytes_).first(std::min<size_t>(headerSize_, 4)), " ")));
        return;
    }
    if (headerSize_ >= kKindAt && velto::Load<uint16_t>(headerBytes_ + kVersionAt) != kVersion) {
        Refuse(EBADMSG, fmt::format("frame of version {}, expected {}",
                                    velto::Load<uint16_t>(headerBytes_ + kVersionAt), kVersion));
    }
}

void FrameParser::ReadHeader() {
    const uint8_t *const at = headerBytes_;
    FrameHeader &header = frame_.header;
    const auto kind = velto::Load<uint16_t>(at + kKindAt);
    header.kind = static_cast<FrameKind>(kind);
    header.id = velto::Load<uint64_t>(at + kIdAt);
    header.typeHash = velto::Load<uint32_t>(at + kTypeHashAt);
    (header.kind == FrameKind::kReply ? header.explanationSize : header.deadlineMs) =
        velto::Load<uint32_t>(at + kDeadlineAt);
    (header.kind == FrameKind::kRequest ? header.takes : header.status) = velto::Load<uint32_t>(at + kStatusAt);
    header.errCode = velto::Load<uint32_t>(at + kErrCodeAt);
    header.length = velto::Load<uint32_t>(at + kLengthAt);
    memcpy(header.service, at + kServiceAt, kServiceSize);
    memcpy(header.method, at + kMethodAt, kMethodSize);
    if (kind < static_cast<uint16_t>(FrameKind::kRequest) || kind > static_cast<uint16_t>(FrameKind::kCancel)) {
        Refuse(EBADMSG, fmt::format("frame of kind {}, expected 1 to 5", kind));
    } else if (!IsName(at + kServiceAt, kServiceSize) || !IsName(at + kMethodAt, kMethodSize)) {
        Refuse(EBADMSG, "frame whose service or method is not printable text padded with NULs");
    } else if (velto::Load<uint32_t>(at + kReservedAt) != 0) {
        Refuse(EBADMSG, "frame whose reserved word is not 0");
    } else if (header.length > payloadLimit_) {
        Refuse(EMSGSIZE, fmt::format("message of {} bytes, expected at most {}", header.length, payloadLimit_));
    }
}

std::span<uint8_t> FrameParser::Room() {
    if (error_ != 0 || headerSize_ < kHeaderSize || isDropped_ || frame_.header.length - have_ < kInPlace) {
        return {};
    }
    const size_t step = std::max(kStep, have_);
    frame_.payload.resize(std::min<size_t>(frame_.header.length, have_ + step));
    return std::span(frame_.payload).subspan(have_);
}

Frame FrameParser::Take() {
    frame_.payload.resize(isDropped_ ? 0 : have_);
    Frame frame = std::move(frame_);
    frame_ = {};
    headerSize_ = 0;
    isNewHeader_ = isDropped_ = false;
    have_ = 0;
    return frame;
}

void FrameParser::Refuse(uint32_t error, std::string reason) {
    error_ = error;
    reason_ = std::move(reason);
}

std::string ErrorText(std::span<const uint8_t> text) {
    constexpr size_t kMaxText = 1024;
    size_t size = std::min(text.size(), kMaxText);
    for (int more = 3; more > 0 && size < text.size() && text[size] >> 6 == 2; --more) {
        --size; // the cut is not within a character
    }
    std::string shown(text.begin(), text.begin() + static_cast<ptrdiff_t>(size));
    std::replace_if(
        shown.begin(), shown.end(), [](char c) { return static_cast<uint8_t>(c) < 0x20 || c == 0x7F; }, '?');
    return shown;
}

std::optional<std::string> TakeExplanation(Frame &reply) {
    Bytes &payload = reply.payload;
    if (reply.header.explanationSize > payload.size()) {
        return std::nullopt;
    }
    const size_t messageSize = payload.size() - reply.header.explanationSize;
    std::string explanation = ErrorText(std::span(payload).subspan(messageSize));
    payload.resize(messageSize);
    return explanation;
}

} // namespace host
