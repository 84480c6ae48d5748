#include "host/ctl/capture/pcapng.h"

#include <fmt/format.h>

#include <string>

#include "host/ctl/commands.h"
#include "velto/bytes.h"

namespace ctl {

namespace {

enum BlockType : uint32_t { kSection = 0x0A0D0D0A, kInterface = 1, kPacket = 6 };
enum Option : uint16_t { kEnd = 0, kInterfaceName = 2, kPacketFlags = 2, kTimeResolution = 9 };
constexpr uint32_t kByteOrder = 0x1A2B3C4D;
constexpr uint16_t kUser0 = 147;
constexpr uint32_t kInbound = 1, kOutbound = 2; // of kPacketFlags
constexpr uint8_t kNanoseconds = 9;
constexpr size_t kLeastBlock = 12; // type, length, length again

// The content of a block.
class Content {
public:
    template <class Number>
    Content &Add(Number number) {
        uint8_t bytes[sizeof number];
        velto::Store(bytes, number);
        return Add(std::span<const uint8_t>(bytes));
    }
    Content &Add(std::span<const uint8_t> bytes) {
        text_.append(reinterpret_cast<const char *>(bytes.data()), bytes.size());
        return *this;
    }
    Content &Pad() {
        text_.resize((text_.size() + 3) / 4 * 4);
        return *this;
    }
    Content &AddOption(Option option, std::span<const uint8_t> value) {
        return Add<uint16_t>(option).Add(static_cast<uint16_t>(value.size())).Add(value).Pad();
    }

    void WriteTo(std::ostream &out, BlockType type) const {
        Content head, tail;
        const auto length = static_cast<uint32_t>(kLeastBlock + text_.size());
        head.Add<uint32_t>(type).Add(length);
        tail.Add(length);
        out << head.text_ << text_ << tail.text_;
    }

private:
    std::string text_;
};

std::span<const uint8_t> BytesOf(const std::string &text) {
    return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

[[noreturn]] void Refuse(size_t at, const std::string &found, std::string_view expected) {
    throw Failure(kRefused, fmt::format("byte {}: found {}, expected {}", at, found, expected));
}

class Reader {
public:
    explicit Reader(std::span<const uint8_t> file) : file_(file) {}

    std::vector<host::TappedFrame> Read() {
        if (file_.size() < kLeastBlock || NumberAt<uint32_t>(0) != kSection || NumberAt<uint32_t>(8) != kByteOrder) {
            Refuse(0, "something else", "a little-endian pcapng file, as tarnctl capture writes it");
        }
        for (size_t at = 0; at < file_.size();) {
            const size_t length = LengthAt(at);
            ReadBlock(at, length);
            at += length;
        }
        return std::move(frames_);
    }

private:
    template <class Number>
    Number NumberAt(size_t at) const {
        if (at + sizeof(Number) > file_.size()) {
            Refuse(at, "the end", "more of a block");
        }
        return velto::Load<Number>(file_.data() + at);
    }

    size_t LengthAt(size_t at) const {
        const auto length = NumberAt<uint32_t>(at + 4);
        if (length < kLeastBlock || length % 4 != 0 || length > file_.size() - at) {
            Refuse(at, fmt::format("a block of {} bytes", length),
                   fmt::format("a multiple of 4 up to {}", file_.size() - at));
        }
        return length;
    }

    void ReadBlock(size_t at, size_t length) {
        const auto type = NumberAt<uint32_t>(at);
        if (type == kInterface && NumberAt<uint16_t>(at + 8) != kUser0) {
            Refuse(at, fmt::format("frames of link type {}", NumberAt<uint16_t>(at + 8)),
                   "147 (USER0), as tarnctl capture writes it");
        }
        if (type == kPacket) {
            ReadPacket(at, length);
        }
    }

    void ReadPacket(size_t at, size_t length) {
        constexpr size_t kHead = 28;
        const auto size = NumberAt<uint32_t>(at + 20);
        if (length < kHead + 4 || size > length - kHead - 4) {
            Refuse(at, fmt::format("a frame of {} bytes in a block of {}", size, length), "fewer");
        }
        host::TappedFrame frame;
        frame.connection = NumberAt<uint32_t>(at + 8);
        frame.length = NumberAt<uint32_t>(at + 24);
        frame.bytes = file_.subspan(at + kHead, size);
        for (size_t option = at + kHead + (size_t{size} + 3) / 4 * 4; option + 8 < at + length;) {
            const auto kind = NumberAt<uint16_t>(option), valueSize = NumberAt<uint16_t>(option + 2);
            if (kind == kPacketFlags && (NumberAt<uint32_t>(option + 4) & 3U) == kOutbound) {
                frame.direction = host::Direction::kSent;
            }
            option += 4 + (size_t{valueSize} + 3) / 4 * 4;
        }
        frames_.push_back(frame);
    }

    const std::span<const uint8_t> file_;
    std::vector<host::TappedFrame> frames_;
};

} // namespace

PcapngWriter::PcapngWriter(std::ostream &out) : out_(out) {
    constexpr uint64_t kUnknownLength = UINT64_MAX;
    Content section;
    section.Add(kByteOrder).Add<uint16_t>(1).Add<uint16_t>(0).Add(kUnknownLength).WriteTo(out_, kSection);
}

uint32_t PcapngWriter::InterfaceOf(const host::TappedFrame &frame) {
    const auto [known, added] = interfaces_.try_emplace(frame.connection, static_cast<uint32_t>(interfaces_.size()));
    if (added) {
        const std::string name =
            fmt::format("process {}, user {}, connection {}", frame.process, frame.user, frame.connection);
        Content interface;
        interface.Add(kUser0).Add<uint16_t>(0).Add<uint32_t>(0);
        interface.AddOption(kInterfaceName, BytesOf(name)).AddOption(kTimeResolution, {&kNanoseconds, 1});
        interface.AddOption(kEnd, {}).WriteTo(out_, kInterface);
    }
    return known->second;
}

void PcapngWriter::Write(const host::TappedFrame &frame) {
    const uint32_t interface = InterfaceOf(frame);
    const auto time = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(frame.time.time_since_epoch()).count());
    uint8_t flags[4];
    velto::Store(flags, frame.direction == host::Direction::kSent ? kOutbound : kInbound);
    Content packet;
    packet.Add(interface).Add(static_cast<uint32_t>(time >> 32)).Add(static_cast<uint32_t>(time));
    packet.Add(static_cast<uint32_t>(frame.bytes.size())).Add(frame.length).Add(frame.bytes).Pad();
    packet.AddOption(kPacketFlags, flags).AddOption(kEnd, {}).WriteTo(out_, kPacket);
}

std::vector<host::TappedFrame> ReadPcapng(std::span<const uint8_t> file) {
    return Reader(file).Read();
}

} // namespace ctl
