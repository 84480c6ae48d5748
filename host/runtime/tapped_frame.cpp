#include "host/runtime/tapped_frame.h"

#include "velto/bytes.h"

namespace host {

namespace {

enum Offset : size_t {
    kTimeAt = 0,
    kConnectionAt = 8,
    kProcessAt = 16,
    kUserAt = 20,
    kDirectionAt = 24,
    kLengthAt = 28,
    kBytesAt = 32,
    kHeadSize = 36,
};

constexpr size_t kDroppedSize = sizeof(uint64_t);

} // namespace

std::string TextOf(const TappedFrame &frame) {
    std::string text(kHeadSize + frame.bytes.size(), '\0');
    auto *const at = reinterpret_cast<uint8_t *>(text.data());
    velto::Store(at + kTimeAt, static_cast<uint64_t>(std::chrono::nanoseconds(frame.time.time_since_epoch()).count()));
    velto::Store(at + kConnectionAt, frame.connection);
    velto::Store(at + kProcessAt, frame.process);
    velto::Store(at + kUserAt, frame.user);
    velto::Store(at + kDirectionAt, static_cast<uint32_t>(frame.direction));
    velto::Store(at + kLengthAt, frame.length);
    velto::Store(at + kBytesAt, static_cast<uint32_t>(frame.bytes.size()));
    std::copy(frame.bytes.begin(), frame.bytes.end(), at + kHeadSize);
    return text;
}

std::string TextOf(uint64_t dropped) {
    std::string text(kDroppedSize, '\0');
    velto::Store(reinterpret_cast<uint8_t *>(text.data()), dropped);
    return text;
}

std::optional<Tapped> ReadTapped(std::span<const uint8_t> answer) {
    if (answer.size() < kDroppedSize) {
        return std::nullopt;
    }
    Tapped tapped{velto::Load<uint64_t>(answer.data()), {}};
    answer = answer.subspan(kDroppedSize);
    while (!answer.empty()) {
        if (answer.size() < kHeadSize) {
            return std::nullopt;
        }
        const uint8_t *const at = answer.data();
        const auto size = velto::Load<uint32_t>(at + kBytesAt), length = velto::Load<uint32_t>(at + kLengthAt);
        const auto direction = velto::Load<uint32_t>(at + kDirectionAt);
        if (size > answer.size() - kHeadSize || size > length || direction > 1) {
            return std::nullopt;
        }
        const std::chrono::nanoseconds time(velto::Load<uint64_t>(at + kTimeAt));
        tapped.frames.push_back({WallTime(std::chrono::duration_cast<WallTime::duration>(time)),
                                 velto::Load<uint64_t>(at + kConnectionAt), velto::Load<uint32_t>(at + kProcessAt),
                                 velto::Load<uint32_t>(at + kUserAt), static_cast<Direction>(direction), length,
                                 answer.subspan(kHeadSize, size)});
        answer = answer.subspan(kHeadSize + size);
    }
    return tapped;
}

} // namespace host
