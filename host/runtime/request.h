// A request on the server's side, from its frame to its answer.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "host/osal/mutex.h"
#include "host/runtime/quota.h"
#include "host/runtime/request_states.h"
#include "host/runtime/services.h"
#include "host/runtime/settings.h"
#include "tarn_sysdiag/host/reply.h"
#include "tarn_sysdiag/platform/rpc.h"

namespace host {

class ServerCore;
class Session;

// What a server has decided of a request at its header, before its payload is taken.
struct Admission {
    std::optional<Refusal> refusal = {}; // the request is told, and was not charged for
    ServedMethod *method = nullptr;      // null: the runtime's own service
    Charge request = {}, bytes = {};
};

// A state machine (request_states.h). It lives until it is over and its wrapper has returned. Its reply context is a
// number, looked up at each use, so that a late or second reply finds nothing rather than freed memory.
class Request : public std::enable_shared_from_this<Request> {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    // One that has arrived. From now on it may be cancelled.
    static std::shared_ptr<Request> Receive(std::shared_ptr<Session> session, Frame &&frame, Admission &&admission,
                                            TimePoint arrived);

    Request(std::shared_ptr<Session> session, Frame &&frame, Admission &&admission, TimePoint arrived);
    Request(const Request &) = delete;
    Request &operator=(const Request &) = delete;
    ~Request();

    const FrameHeader &Header() const { return frame_.header; }
    std::string_view Payload() const {
        return {reinterpret_cast<const char *>(frame_.payload.data()), frame_.payload.size()};
    }
    Session &GetSession() const { return *session_; }
    // Null when it is the runtime's own service that is asked.
    ServedMethod *Method() const { return admission_.method; }

    // Runs the method's wrapper on this thread, and answers unless the implementation has done so or is still to do it.
    // Runs nothing when nobody waits for the answer any more.
    void Run();

    void Refuse(const Refusal &refusal);
    // Ends it without an answer.
    void GiveUp();
    void Answer(std::string_view payload);
    // With a failure of the method.
    void AnswerStatus(uint32_t status, const std::string &why);
    // Of one that is answered later: when its deadline passes before that, it is refused.
    void AwaitDeadline() { StartTimer(); }

    // The caller takes no answer any more: to one call, or to all calls of its connection.
    static void Cancel(const Session *session, uint64_t id);
    static void CancelAll(const Session *session);

    // Answers every unanswered request of a server with an error.
    static void RefuseAll(const ServerCore &server, uint32_t errCode, const std::string &text);

private:
    class Live;
    class Scope;
    class LogShare;
    friend void * ::RPC_IdlReqVeltoMsgUnPack(void *, void *, const IdlServerCodecTable *);
    friend IdlServerCodecTable * ::RPC_GetUsrFuncLib(void *);
    friend uint32_t AnswerRecord(void *replyCtx, void *response);
    friend uint32_t AnswerStatus(void *replyCtx, uint32_t status);
    friend uintptr_t NumberOf(void *replyCtx);
    friend std::shared_ptr<Request> RequestOf(void *replyCtx);
    friend uint32_t CancelledWhy(void *replyCtx);
    friend uint32_t RemainingMs(void *replyCtx);
    friend uint32_t PeerOf(void *replyCtx, TarnHost_Peer *peer);
    friend uint32_t PeerLives(void *replyCtx);
    friend uint32_t Explain(void *replyCtx, const char *reason);
    friend void NoteSetting(const meaning::Method &method, const void *request);

    void RunWrapper();
    void SetState(RequestState state);
    bool IsOver() const;
    bool IsOneway() const { return frame_.header.kind == FrameKind::kOneway; }
    std::string Label() const;
    void *Unpack(void *record, const IdlServerCodecTable &codec);
    uint32_t EncodeAndRelease(void *response, Bytes &bytes) const;
    void Reply(void *response);
    uint32_t AppendExplanation(Bytes &frame) const;
    void Fail(uint32_t status);
    void SendReply(std::span<uint8_t> frame, uint32_t explanationSize = 0);
    void SendError(uint32_t status, uint32_t errCode, const std::string &text);
    bool Ends(bool well);
    void StartTimer() TARN_EXCLUDES(timerMutex_);
    void StopTimer() TARN_EXCLUDES(timerMutex_);

    const std::shared_ptr<Session> session_;
    Frame frame_;
    Admission admission_;
    const TimePoint arrived_;
    const TimePoint deadline_;
    MethodStatistics *statistics_ = nullptr; // once it runs
    uintptr_t context_ = 0;
    std::atomic<RequestState> state_ = RequestState::kWaiting; // set with the table of live requests locked
    void *record_ = nullptr;                                   // while its wrapper runs
    IdlServerCodecTable wrapperCodec_{};
    bool undecodable_ = false;
    std::string reason_;       // of a failure, set as state_ is
    Request *outer_ = nullptr; // of the same thread
    Mutex timerMutex_;
    std::optional<uint64_t> timer_ TARN_GUARDED_BY(timerMutex_); // at the deadline, for what has returned unanswered
};

} // namespace host
