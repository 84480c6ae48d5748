#include "host/stacks/helper.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <utility>

#include <fmt/format.h>

#include "host/osal/error.h"
#include "host/osal/hex.h"
#include "host/osal/text.h"

namespace host::stacks {

namespace {

using unwind::Kind;
using Bytes = std::span<const uint8_t>;

// Takes bytes off the front.
class Cursor {
public:
    explicit Cursor(Bytes bytes) : rest_(bytes) {}

    template <class Value>
    bool Take(Value &value) {
        if (rest_.size() < sizeof value) {
            return false;
        }
        memcpy(&value, rest_.data(), sizeof value);
        rest_ = rest_.subspan(sizeof value);
        return true;
    }
    bool TakeName(size_t bytes, std::string &name) {
        if (bytes > unwind::kMostNameBytes || bytes > rest_.size()) {
            return false;
        }
        name = LineOfText({reinterpret_cast<const char *>(rest_.data()), bytes});
        rest_ = rest_.subspan(bytes);
        return true;
    }
    bool TakeHex(size_t bytes, std::string &text) {
        if (bytes > unwind::kMostBuildIdBytes || bytes > rest_.size()) {
            return false;
        }
        text = Hex(rest_.first(bytes));
        rest_ = rest_.subspan(bytes);
        return true;
    }
    size_t Rest() const { return rest_.size(); }

private:
    Bytes rest_;
};

template <class Value>
Bytes BytesOf(const Value &value) {
    return {reinterpret_cast<const uint8_t *>(&value), sizeof value};
}

[[noreturn]] void FailOnReply() {
    Fail(EPROTO, "a helper's reply is not well-formed");
}

} // namespace

std::string Frame::Text() const {
    if (!function.empty()) {
        return fmt::format("{}+{:#x}", function, offset);
    }
    return module.empty() ? fmt::format("{:#x}", address) : fmt::format("{}+{:#x}", module, offset);
}

std::string ModulesText(std::span<const Frame> frames) {
    std::map<uint64_t, std::string> modules; // by where they begin
    for (const Frame &frame : frames) {
        if (!frame.module.empty()) {
            const uint64_t start = frame.address - frame.moduleOffset;
            modules[start] = fmt::format("{} at {:#x}{}{}", frame.module, start,
                                         frame.buildId.empty() ? "" : ", build id ", frame.buildId);
        }
    }
    std::string text;
    for (const auto &[start, module] : modules) {
        text += (text.empty() ? "" : "; ") + module;
    }
    return text;
}

std::optional<std::vector<Frame>> ParseFrames(Bytes bytes) {
    std::vector<Frame> frames;
    for (Cursor cursor(bytes); cursor.Rest() != 0;) {
        unwind::FrameHead head{};
        Frame frame;
        if (frames.size() == unwind::kMostFrames || !cursor.Take(head) ||
            !cursor.TakeName(head.moduleBytes, frame.module) || !cursor.TakeName(head.functionBytes, frame.function) ||
            !cursor.TakeHex(head.buildIdBytes, frame.buildId)) {
            return {};
        }
        frame.moduleOffset = head.moduleOffset;
        frame.moreFollow = head.moreFollow != 0;
        frame.address = head.address;
        frame.offset = head.offset;
        frames.push_back(std::move(frame));
    }
    return frames.empty() ? std::nullopt : std::optional(std::move(frames));
}

std::optional<ReadableName> ParseReadableName(Bytes bytes) {
    Cursor cursor(bytes);
    ReadableName readable{};
    if (!cursor.Take(readable.index) || cursor.Rest() == 0 || !cursor.TakeName(cursor.Rest(), readable.name)) {
        return {};
    }
    return readable;
}

// While it goes on, the helper is not fit for another; it is again when the exchange has come to its end.
class Helper::Exchange {
public:
    explicit Exchange(Helper &helper) : helper_(helper) { helper_.fit_ = false; }
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;
    void End() { helper_.fit_ = true; }

private:
    Helper &helper_;
};

void Helper::AwaitReady(Deadline deadline) {
    Exchange exchange(*this);
    const Message message = Receive(deadline);
    int32_t error = 0;
    if (message.kind != Kind::kReady || message.bytes.size() != sizeof error || !Cursor(message.bytes).Take(error)) {
        FailOnReply();
    }
    if (error != 0) {
        Fail(error == EPERM || error == ENOTSUP || error == ESRCH ? error : EPIPE, "a helper could not begin");
    }
    exchange.End();
}

std::vector<Frame> Helper::Unwind(const Snapshot &snapshot, Deadline deadline) {
    Exchange exchange(*this);
    const unwind::SnapshotHead head{snapshot.programCounter, snapshot.stackPointer,
                                    static_cast<uint32_t>(snapshot.registers.size()),
                                    static_cast<uint32_t>(snapshot.stack.size())};
    const std::array parts{BytesOf(head),
                           Bytes(reinterpret_cast<const uint8_t *>(snapshot.registers.data()),
                                 snapshot.registers.size() * sizeof(uint64_t)),
                           Bytes(snapshot.stack)};
    Send(Kind::kSnapshot, parts, deadline);
    std::vector<Frame> frames = ReceiveFrames(deadline);
    try {
        ReceiveNames(frames, deadline);
        exchange.End();
    } catch (const std::system_error &) {
        // The frames stand, and the names that came; it is not asked again.
    }
    return frames;
}

std::string Helper::Demangle(const std::string &name, Deadline deadline) {
    Exchange exchange(*this);
    const std::array parts{Bytes(reinterpret_cast<const uint8_t *>(name.data()), name.size())};
    Send(Kind::kName, parts, deadline);
    std::vector<Frame> frames(1);
    ReceiveNames(frames, deadline);
    exchange.End();
    return frames[0].function;
}

std::vector<Frame> Helper::ReceiveFrames(Deadline deadline) {
    const Message message = Receive(deadline);
    std::optional<std::vector<Frame>> frames;
    if (message.kind == Kind::kFrames) {
        frames = ParseFrames(message.bytes);
    }
    if (!frames.has_value()) {
        FailOnReply();
    }
    return std::move(*frames);
}

// Each frame is named once at most, in their order.
void Helper::ReceiveNames(std::vector<Frame> &frames, Deadline deadline) {
    for (uint32_t next = 0;;) {
        const Message message = Receive(deadline);
        if (message.kind == Kind::kEnd && message.bytes.empty()) {
            return;
        }
        const std::optional<ReadableName> readable = ParseReadableName(message.bytes);
        if (message.kind != Kind::kReadable || !readable.has_value() || readable->index < next ||
            readable->index >= frames.size()) {
            FailOnReply();
        }
        frames[readable->index].function = readable->name;
        next = readable->index + 1;
    }
}

void Helper::Wait(short events, Deadline deadline) const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd ready{socket_.Fd(), events, 0};
    const int most = static_cast<int>(std::clamp<int64_t>(left.count(), 0, 60'000));
    if (poll(&ready, 1, most) == 0) {
        Fail(ETIMEDOUT, "a helper");
    }
}

void Helper::Send(Kind kind, std::span<const Bytes> parts, Deadline deadline) const {
    size_t bytes = 0;
    for (const Bytes &part : parts) {
        bytes += part.size();
    }
    const auto sendPart = [&](Bytes part) {
        while (!part.empty()) {
            const ssize_t sent = send(socket_.Fd(), part.data(), part.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (sent > 0) {
                part = part.subspan(static_cast<size_t>(sent));
            } else if (errno == EAGAIN) {
                Wait(POLLOUT, deadline);
            } else if (errno != EINTR) {
                Fail(EPIPE, "a helper has ended");
            }
        }
    };
    const unwind::Head head{kind, static_cast<uint32_t>(bytes)};
    sendPart(BytesOf(head));
    std::for_each(parts.begin(), parts.end(), sendPart);
}

void Helper::Read(void *to, size_t bytes, Deadline deadline) const {
    auto *at = static_cast<uint8_t *>(to);
    while (bytes > 0) {
        const ssize_t got = recv(socket_.Fd(), at, bytes, MSG_DONTWAIT);
        if (got > 0) {
            at += got;
            bytes -= static_cast<size_t>(got);
        } else if (got < 0 && errno == EAGAIN) {
            Wait(POLLIN, deadline);
        } else if (got == 0 || errno != EINTR) {
            Fail(EPIPE, "a helper has ended");
        }
    }
}

Helper::Message Helper::Receive(Deadline deadline) const {
    unwind::Head head{};
    Read(&head, sizeof head, deadline);
    if (head.bytes > unwind::kMostReplyBytes) {
        FailOnReply();
    }
    Message message{head.kind, std::vector<uint8_t>(head.bytes)};
    Read(message.bytes.data(), message.bytes.size(), deadline);
    return message;
}

} // namespace host::stacks
