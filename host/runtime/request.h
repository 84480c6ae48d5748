// A request on the server's side, from its frame to its answer.
#pragma once

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/runtime/limits.h"
#include "host/runtime/protocol.h"
#include "platform/rpc.h"

namespace host {

// The connection that a request came on.
class RequestSource {
public:
    virtual ~RequestSource() = default;
    virtual void SendAnswer(std::vector<uint8_t> frame) = 0;
    virtual void Finished() = 0; // a request of this connection has been answered, and its wrapper has returned
    virtual const Limits &GetLimits() const = 0;
    virtual asio::io_context &GetIo() = 0;
    virtual const void *GetServer() const = 0;
};

// It lives until it has been answered and its wrapper has returned. Its reply context is a number, looked up at each
// use, so that a late or second reply finds nothing rather than freed memory.
class Request : public std::enable_shared_from_this<Request> {
public:
    Request(std::shared_ptr<RequestSource> source, Frame frame);
    Request(const Request &) = delete;
    Request &operator=(const Request &) = delete;
    ~Request();

    // Runs the wrapper on this thread, and answers unless the implementation has done so or is still to do it.
    void Run(IdlWrapperFn wrapper);

    void Refuse(uint32_t errCode, const std::string &text);

    // Answers every unanswered request of a server with an error.
    static void RefuseAll(const void *server, uint32_t errCode, const std::string &text);

private:
    class Live;
    class Scope;
    friend void * ::RPC_IdlReqVeltoMsgUnPack(void *, void *, const IdlServerCodecTable *);
    friend IdlServerCodecTable * ::RPC_GetUsrFuncLib(void *);
    friend uint32_t AnswerRecord(void *replyCtx, void *response);
    friend uint32_t AnswerStatus(void *replyCtx, uint32_t status);

    bool IsOneway() const { return frame_.header.kind == FrameKind::kOneway; }
    std::string Label() const;
    void *Unpack(void *record, const IdlServerCodecTable &codec);
    void Reply(void *response);
    void Fail(uint32_t status);
    void SendReply(std::vector<uint8_t> frame);
    void SendError(uint32_t status, uint32_t errCode, const std::string &text);
    void StartTimer();
    void StopTimer();

    const std::shared_ptr<RequestSource> source_;
    Frame frame_;
    const std::chrono::steady_clock::time_point deadline_;
    uintptr_t context_ = 0;
    void *record_ = nullptr;     // while its wrapper runs
    IdlServerCodecTable kept_{}; // the wrapper's codec table
    bool undecodable_ = false;
    Request *outer_ = nullptr; // of the same thread
    std::mutex mutex_;         // guards the two below
    bool answered_ = false;
    std::optional<asio::steady_timer> timer_;
};

} // namespace host
