// A connection that one thread at a time calls on and waits.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "host/runtime/outgoing.h"

namespace host {

class Channel {
public:
    Channel(Connected connection, uint32_t payloadLimit)
        : fd_(std::move(connection.socket)), process_(std::move(connection.process)), parser_(payloadLimit) {}

    // Whether the agent that it was made to can't be at the other end any more. Of a service it is not asked: that its
    // server has gone is seen by the next call.
    bool HasEnded() const;

    // 0, or an errno value: ETIMEDOUT, or ECONNRESET when the peer has closed.
    int Send(std::span<const uint8_t> header, std::span<const uint8_t> payload, Transport::Clock::time_point deadline);

    // The frame that answers the call `id`; frames of other calls are passed over. 0, ETIMEDOUT, ECONNRESET, or what
    // the parser says, its reason in `reason`.
    int Receive(uint64_t id, Frame &frame, Transport::Clock::time_point deadline, std::string &reason);

private:
    int Wait(short events, Transport::Clock::time_point deadline) const;
    ssize_t SendSome(std::span<const uint8_t> header, std::span<const uint8_t> payload) const;
    int ReadSome(Transport::Clock::time_point deadline, std::span<uint8_t> to, size_t &count);
    void SetReadTimeout(std::chrono::milliseconds timeout);

    Descriptor fd_;
    Descriptor process_; // of an agent
    FrameParser parser_;
    std::chrono::milliseconds readTimeout_{0}; // that the socket has
};

} // namespace host
