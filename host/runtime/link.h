// A connection that carries frames both ways, driven by an io_context.
#pragma once

#include <array>
#include <asio/generic/stream_protocol.hpp>
#include <asio/io_context.hpp>
#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "host/runtime/protocol.h"
#include "host/runtime/transport.h"

namespace host {

// A side derives from it. All functions are thread-safe; one read is under way at a time.
class Link : public std::enable_shared_from_this<Link> {
public:
    Link(asio::io_context &io, UniqueFd fd, uint32_t payloadLimit);
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;
    virtual ~Link() = default;

    void Read();

    // Sends now what the socket takes, the rest when it takes more. False when the link is closed.
    bool Send(std::vector<uint8_t> bytes);

    void Close();
    void CloseWhenSent();
    bool Unsent() const;

protected:
    // Takes the frames of one read, and says whether to read on. Process() follows when the next read is under way.
    virtual bool Take(std::vector<Frame> &&frames) = 0;
    virtual void Process() {}
    // The peer sent what is no frame, or one too large. Nothing more is read.
    virtual void OnBad(const FrameParser &parser) = 0;
    // Once, when the connection has ended for whatever reason.
    virtual void OnEnd() = 0;

    asio::io_context &Io() { return io_; }

private:
    void OnRead(bool failed, size_t count, bool intoRoom);
    void Flush();
    void End();

    asio::io_context &io_;
    mutable std::mutex mutex_; // the socket's state and what is unsent
    asio::generic::stream_protocol::socket socket_;
    bool closed_ = false;
    bool closeWhenSent_ = false;
    bool waitsToSend_ = false;
    std::deque<std::vector<uint8_t>> unsent_;
    size_t sentOfFirst_ = 0;
    std::atomic<bool> ended_ = false;
    FrameParser parser_; // the reading thread's
    std::array<uint8_t, 16384> scratch_;
};

} // namespace host
