#include "host/runtime/request.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <new>
#include <unordered_map>

#include "host/osal/log.h"
#include "host/runtime/encode.h"
#include "host/runtime/server_core.h"
#include "host/runtime/session.h"

namespace host {
namespace {

// The requests whose wrappers run on this thread, innermost first.
thread_local Request *running = nullptr;

std::chrono::milliseconds DeadlineOf(const FrameHeader &header, const Limits &limits) {
    const std::chrono::milliseconds asked(header.deadlineMs);
    return asked.count() == 0 ? limits.deadline : std::min(asked, limits.maxDeadline);
}

} // namespace

void Request::SetState(RequestState state) {
    kRequestStates.Check(context_, state_, state);
    state_ = state;
}

bool Request::IsOver() const {
    return state_ == RequestState::kAnswered || state_ == RequestState::kDropped;
}

// The requests that are not over, by reply context. Whoever takes one out ends it.
class Request::Live {
public:
    static Live &Get() {
        static auto &live = *new Live; // replies may come while the process ends
        return live;
    }

    void Enter(const std::shared_ptr<Request> &request) TARN_EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        do {
            ++last_;
        } while (last_ == 0 || requests_.count(last_) != 0);
        request->context_ = last_;
        if (spare_.empty()) {
            requests_.emplace(last_, request);
        } else {
            spare_.key() = last_;
            spare_.mapped() = request;
            requests_.insert(std::move(spare_));
        }
    }

    // For the one who answers it, in vain when its caller has given up.
    std::shared_ptr<Request> Claim(uintptr_t context) TARN_EXCLUDES(mutex_) {
        std::shared_ptr<Request> request;
        {
            const MutexLock lock(mutex_);
            const auto found = requests_.find(context);
            if (found == requests_.end()) {
                return nullptr;
            }
            request = std::move(found->second);
            spare_ = requests_.extract(found);
            const bool wanted = request->state_ != RequestState::kAbandoned;
            request->SetState(wanted ? RequestState::kAnswered : RequestState::kDropped);
        }
        request->StopTimer();
        return request;
    }

    std::shared_ptr<Request> Find(uintptr_t context) TARN_EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        const auto found = requests_.find(context);
        return found == requests_.end() ? nullptr : found->second;
    }

    // False when nobody waits for the answer any more.
    bool Begin(uintptr_t context) TARN_EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        const auto found = requests_.find(context);
        if (found == requests_.end()) {
            return false;
        }
        found->second->SetState(RequestState::kRunning);
        return true;
    }

    // Of one that will be answered after its wrapper has returned.
    void Return(uintptr_t context) TARN_EXCLUDES(mutex_) {
        std::shared_ptr<Request> dropped;
        {
            const MutexLock lock(mutex_);
            const auto found = requests_.find(context);
            if (found == requests_.end()) {
                return;
            }
            if (found->second->state_ == RequestState::kRunning) {
                found->second->SetState(RequestState::kReturned);
                return;
            }
            dropped = Drop(found);
        }
        dropped->StopTimer();
    }

    // Those that run are told; the others are gone.
    void Cancel(const std::function<bool(const Request &)> &concerns) TARN_EXCLUDES(mutex_) {
        std::vector<std::shared_ptr<Request>> dropped;
        {
            const MutexLock lock(mutex_);
            for (auto entry = requests_.begin(); entry != requests_.end();) {
                const auto at = entry++;
                Request &request = *at->second;
                if (!concerns(request) || request.IsOneway()) {
                    continue;
                }
                if (request.state_ == RequestState::kRunning) {
                    request.SetState(RequestState::kAbandoned);
                } else if (request.state_ != RequestState::kAbandoned) {
                    dropped.push_back(Drop(at));
                }
            }
        }
        for (const auto &request : dropped) {
            request->StopTimer();
        }
    }

    // False when it is over, so that whoever ends it reads what it was before.
    bool Explain(uintptr_t context, std::string reason) TARN_EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        const auto found = requests_.find(context);
        if (found == requests_.end()) {
            return false;
        }
        found->second->reason_.swap(reason);
        return true;
    }

    std::vector<uintptr_t> ContextsOf(const ServerCore &server) TARN_EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        std::vector<uintptr_t> contexts;
        for (const auto &[context, request] : requests_) {
            if (&request->session_->GetServer() == &server) {
                contexts.push_back(context);
            }
        }
        return contexts;
    }

private:
    using Table = std::unordered_map<uintptr_t, std::shared_ptr<Request>>;

    // To be released with nothing locked.
    std::shared_ptr<Request> Drop(Table::iterator at) TARN_REQUIRES(mutex_) {
        std::shared_ptr<Request> request = std::move(at->second);
        requests_.erase(at);
        request->SetState(RequestState::kDropped);
        return request;
    }

    Mutex mutex_;
    uintptr_t last_ TARN_GUARDED_BY(mutex_) = 0;
    Table requests_ TARN_GUARDED_BY(mutex_);
    Table::node_type spare_ TARN_GUARDED_BY(mutex_); // of the last that was answered, for the next
};

// What is logged of a call is its user's share of the log.
class Request::LogShare final : public LogGate {
public:
    explicit LogShare(Session &session) : session_(session) {}
    bool Passes() override { return session_.MayLogCall(); }

private:
    Session &session_;
};

// Makes a request this thread's innermost while its wrapper runs.
class Request::Scope {
public:
    explicit Scope(Request *request) {
        request->outer_ = running;
        running = request;
    }
    Scope(const Scope &) = delete;
    Scope &operator=(const Scope &) = delete;
    ~Scope() {
        running->record_ = nullptr;
        running = running->outer_;
    }
};

Request::Request(std::shared_ptr<Session> session, Frame &&frame, Admission &&admission, TimePoint arrived)
    : session_(std::move(session)), frame_(std::move(frame)), admission_(std::move(admission)), arrived_(arrived),
      deadline_(arrived_ + DeadlineOf(frame_.header, session_->GetLimits())) {
    session_->Begun();
}

Request::~Request() {
    admission_ = {}; // there is room for another before it is asked for
    session_->Finished();
}

std::shared_ptr<Request> Request::Receive(std::shared_ptr<Session> session, Frame &&frame, Admission &&admission,
                                          TimePoint arrived) {
    auto request = std::make_shared<Request>(std::move(session), std::move(frame), std::move(admission), arrived);
    Live::Get().Enter(request);
    return request;
}

void Request::Run() {
    if (session_->Now() >= deadline_) {
        Refuse({Reason::kExpired, ETIMEDOUT, "its deadline passed before its turn"});
        return;
    }
    statistics_ = &admission_.method->statistics;
    if (!Live::Get().Begin(context_)) {
        return;
    }
    try {
        RunWrapper();
    } catch (const std::bad_alloc &) {
        GiveUp();
        throw; // ends the connection
    }
}

void Request::RunWrapper() {
    IdlServerCodecTable lent{};
    lent.pRuntimeWord = this;
    LogShare share(*session_);
    uint32_t status;
    {
        const Scope scope(this);
        status = admission_.method->entry->pfnWrapper(this, reinterpret_cast<void *>(context_), &lent);
    }
    if (status == 0 && lent.stCodec.pfnPack != nullptr) {
        StartTimer();
        Live::Get().Return(context_);
        return;
    }
    const auto unanswered = Live::Get().Claim(context_);
    if (unanswered == nullptr) {
        Log().warn("{}: status {} after the request had been answered", Label(), status);
    } else if (status != 0) {
        Fail(status);
    } else {
        uint8_t empty[kHeaderSize];
        SendReply(empty);
    }
}

void Request::GiveUp() {
    Live::Get().Claim(context_);
}

void Request::Refuse(const Refusal &refusal) {
    if (Live::Get().Claim(context_) != nullptr) {
        session_->GetRefusals().Count(refusal.reason);
        SendError(0, refusal.errCode, refusal.text);
    }
}

void Request::Answer(std::string_view payload) {
    if (Live::Get().Claim(context_) != nullptr) {
        Bytes frame(kHeaderSize);
        frame.insert(frame.end(), payload.begin(), payload.end());
        SendReply(frame);
    }
}

void Request::AnswerStatus(uint32_t status, const std::string &why) {
    if (Live::Get().Claim(context_) != nullptr) {
        SendError(status, 0, why);
    }
}

void Request::Cancel(const Session *session, uint64_t id) {
    Live::Get().Cancel(
        [=](const Request &request) { return request.session_.get() == session && request.frame_.header.id == id; });
}

void Request::CancelAll(const Session *session) {
    Live::Get().Cancel([=](const Request &request) { return request.session_.get() == session; });
}

void Request::RefuseAll(const ServerCore &server, uint32_t errCode, const std::string &text) {
    for (const uintptr_t context : Live::Get().ContextsOf(server)) {
        if (const auto request = Live::Get().Claim(context)) {
            request->SendError(0, errCode, text);
        }
    }
}

std::string Request::Label() const {
    return fmt::format("{}.{}", frame_.header.service, frame_.header.method);
}

void *Request::Unpack(void *record, const IdlServerCodecTable &codec) {
    static const uint8_t nothing = 0;
    const uint8_t *const bytes = frame_.payload.empty() ? &nothing : frame_.payload.data();
    if (record == nullptr || codec.stCodec.pfnUnpack == nullptr ||
        DecodeWithin(session_->GetLimits().decodedBytes, codec.stCodec, bytes, frame_.payload.size(), record) ==
            nullptr) {
        undecodable_ = true;
        return nullptr;
    }
    record_ = record;
    return record;
}

// The message of a response, which is released. ECANCELED when nobody wants it.
uint32_t Request::EncodeAndRelease(void *response, Bytes &bytes) const {
    const auto release = [this](void *record) {
        if (wrapperCodec_.stCodec.pfnUsrFree != nullptr) {
            wrapperCodec_.stCodec.pfnUsrFree(record);
        }
    };
    const std::unique_ptr<void, decltype(release)> owned(response, release);
    const bool wanted = state_ == RequestState::kAnswered;
    return wanted ? Encode(wrapperCodec_.stCodec, response, kHeaderSize, session_->GetLimits().messageBytes, bytes)
                  : uint32_t{ECANCELED};
}

void Request::Reply(void *response) {
    Bytes bytes;
    const uint32_t error = EncodeAndRelease(response, bytes);
    if (error == 0 || error == ECANCELED) {
        const uint32_t explanationSize = error == 0 ? AppendExplanation(bytes) : 0;
        SendReply(bytes, explanationSize);
        return;
    }
    const std::string text = error == EMSGSIZE
                                 ? fmt::format("the reply is larger than {} bytes", session_->GetLimits().messageBytes)
                                 : "the reply can't be encoded";
    Log().error("{}: {}", Label(), text);
    SendError(0, error, text);
}

// Puts it behind a reply's message, where there is one, the caller takes it, and the limit leaves room: its size.
uint32_t Request::AppendExplanation(Bytes &frame) const {
    if (reason_.empty() || (frame_.header.takes & kTakesExplanation) == 0) {
        return 0;
    }
    const std::string text = ErrorText({reinterpret_cast<const uint8_t *>(reason_.data()), reason_.size()});
    if (frame.size() - kHeaderSize + text.size() > session_->GetLimits().messageBytes) {
        return 0;
    }
    frame.insert(frame.end(), text.begin(), text.end());
    return static_cast<uint32_t>(text.size());
}

void Request::Fail(uint32_t status) {
    if (undecodable_) {
        SendError(status, 0, fmt::format("the request of {} bytes is not a valid message", frame_.payload.size()));
    } else if (status == ENOSYS) {
        SendError(status, 0, "not implemented");
    } else {
        const char *const name = strerrordesc_np(static_cast<int>(status));
        SendError(status, 0,
                  fmt::format("status {} ({}){}{}", status, name == nullptr ? "not an errno value" : name,
                              reason_.empty() ? "" : ": ", reason_));
    }
}

// Counts, and says whether anybody takes the answer.
bool Request::Ends(bool well) {
    const bool wanted = state_ == RequestState::kAnswered;
    if (statistics_ != nullptr) {
        statistics_->calls.fetch_add(1, std::memory_order_relaxed);
        (wanted ? statistics_->errors : statistics_->cancelled)
            .fetch_add(well && wanted ? 0 : 1, std::memory_order_relaxed);
        statistics_->latency.Add(session_->Now() - arrived_);
    }
    return wanted;
}

// `frame` has room for the header.
void Request::SendReply(std::span<uint8_t> frame, uint32_t explanationSize) {
    if (!Ends(true) || IsOneway()) {
        return;
    }
    FrameHeader header;
    header.kind = FrameKind::kReply;
    header.id = frame_.header.id;
    header.typeHash = frame_.header.typeHash;
    header.explanationSize = explanationSize;
    header.length = static_cast<uint32_t>(frame.size() - kHeaderSize);
    WriteHeader(header, frame.first<kHeaderSize>());
    session_->SendFrame(frame);
}

void Request::SendError(uint32_t status, uint32_t errCode, const std::string &text) {
    if (!Ends(false)) {
        return;
    }
    const std::string whole = fmt::format("{}: {}", Label(), text);
    if (IsOneway()) {
        session_->Warn("one-way calls failed", "one-way " + whole);
        return;
    }
    FrameHeader header;
    header.kind = FrameKind::kError;
    header.id = frame_.header.id;
    header.typeHash = frame_.header.typeHash;
    header.status = status;
    header.errCode = errCode;
    session_->SendFrame(MakeFrame(header, {reinterpret_cast<const uint8_t *>(whole.data()), whole.size()}));
}

// Unless it is over: who ends it stops the timer after that.
void Request::StartTimer() {
    const MutexLock lock(timerMutex_);
    if (IsOver()) {
        return;
    }
    timer_ = session_->GetLoop().At(deadline_, [context = context_] {
        if (const auto request = Live::Get().Claim(context)) {
            request->session_->Confine([&] { request->SendError(0, ETIMEDOUT, "not answered within its deadline"); });
        }
    });
}

void Request::StopTimer() {
    const MutexLock lock(timerMutex_);
    if (timer_.has_value()) {
        session_->GetLoop().CancelTimer(*timer_);
        timer_.reset();
    }
}

uint32_t AnswerRecord(void *replyCtx, void *response) {
    if (replyCtx == nullptr || response == nullptr) {
        return EINVAL;
    }
    const auto request = Request::Live::Get().Claim(reinterpret_cast<uintptr_t>(replyCtx));
    if (request == nullptr) {
        return EALREADY;
    }
    request->session_->Confine([&] { request->Reply(response); });
    return 0;
}

uint32_t AnswerStatus(void *replyCtx, uint32_t status) {
    if (replyCtx == nullptr || status == 0) {
        return EINVAL;
    }
    const auto request = Request::Live::Get().Claim(reinterpret_cast<uintptr_t>(replyCtx));
    if (request == nullptr) {
        return EALREADY;
    }
    request->session_->Confine([&] { request->Fail(status); });
    return 0;
}

// Whether a context stands for the request that runs on this thread, and none does.
bool IsOutside(const void *replyCtx) {
    return replyCtx == nullptr && running == nullptr;
}

// The number of the request that a context stands for, which is not outside.
uintptr_t NumberOf(void *replyCtx) {
    return replyCtx != nullptr ? reinterpret_cast<uintptr_t>(replyCtx) : running->context_;
}

// Null when the request is over.
std::shared_ptr<Request> RequestOf(void *replyCtx) {
    return Request::Live::Get().Find(NumberOf(replyCtx));
}

uint32_t CancelledWhy(void *replyCtx) {
    if (IsOutside(replyCtx)) {
        return 0;
    }
    const auto request = RequestOf(replyCtx);
    if (request == nullptr) {
        return EALREADY;
    }
    if (request->state_ == RequestState::kAbandoned) {
        return ECANCELED;
    }
    if (request->session_->IsStopping()) {
        return ESHUTDOWN;
    }
    return request->session_->Now() >= request->deadline_ ? uint32_t{ETIMEDOUT} : 0;
}

uint32_t Explain(void *replyCtx, const char *reason) {
    if (reason == nullptr || IsOutside(replyCtx)) {
        return EINVAL;
    }
    try {
        return Request::Live::Get().Explain(NumberOf(replyCtx), reason) ? 0 : EALREADY;
    } catch (const std::bad_alloc &) { // the handler's callers are C, and have no table to unwind by
        return ENOMEM;
    }
}

uint32_t RemainingMs(void *replyCtx) {
    if (IsOutside(replyCtx)) {
        return UINT32_MAX;
    }
    const auto request = RequestOf(replyCtx);
    if (request == nullptr) {
        return 0;
    }
    const auto left = request->deadline_ - request->session_->Now();
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    return static_cast<uint32_t>(std::clamp<int64_t>(ms, 0, UINT32_MAX));
}

uint32_t PeerOf(void *replyCtx, TarnHost_Peer *to) {
    if (to == nullptr || IsOutside(replyCtx)) {
        return EINVAL;
    }
    const auto request = replyCtx == nullptr ? running->shared_from_this() : RequestOf(replyCtx);
    if (request == nullptr) {
        return EALREADY;
    }
    const Peer &peer = request->session_->GetPeer();
    const bool memoryOfOthers = request->session_->GetPolicy()->AllowsMemoryOfOthers(peer);
    *to = {static_cast<uint32_t>(peer.pid), peer.uid, peer.gid, memoryOfOthers};
    return 0;
}

void NoteSetting(const meaning::Method &method, const void *request) {
    if (running != nullptr) {
        running->session_->GetServer().NoteSetting(running->session_->GetPeer(), method, request);
    }
}

uint32_t PeerLives(void *replyCtx) {
    const auto request = IsOutside(replyCtx) ? nullptr : RequestOf(replyCtx);
    return request != nullptr && request->session_->PeerLives() ? 1 : 0;
}

} // namespace host

uint32_t TarnHost_PeerOf(void *pReplyCtx, TarnHost_Peer *pstPeer) {
    return host::PeerOf(pReplyCtx, pstPeer);
}

uint32_t TarnHost_PeerLives(void *pReplyCtx) {
    return host::PeerLives(pReplyCtx);
}

void TarnHost_Explain(const char *pcReason) {
    host::Explain(nullptr, pcReason);
}

uint32_t TarnHost_ExplainReply(void *pReplyCtx, const char *pcReason) {
    return host::Explain(pReplyCtx, pcReason);
}

uint32_t TarnHost_Cancelled(void *pReplyCtx) {
    return host::CancelledWhy(pReplyCtx);
}

uint32_t TarnHost_RemainingMs(void *pReplyCtx) {
    return host::RemainingMs(pReplyCtx);
}

uint32_t TarnHost_Reply(void *pReplyCtx, void *pResponse) {
    return host::AnswerRecord(pReplyCtx, pResponse);
}

uint32_t TarnHost_ReplyStatus(void *pReplyCtx, uint32_t uiStatus) {
    return host::AnswerStatus(pReplyCtx, uiStatus);
}

void *RPC_IdlReqVeltoMsgUnPack(void *pRequest, void *pRecord, const IdlServerCodecTable *pstCodec) {
    auto *const request = static_cast<host::Request *>(pRequest);
    return request == nullptr || pstCodec == nullptr ? nullptr : request->Unpack(pRecord, *pstCodec);
}

IdlServerCodecTable *RPC_GetUsrFuncLib(void *pRecord) {
    for (host::Request *request = host::running; request != nullptr; request = request->outer_) {
        if (request->record_ == pRecord) {
            return &request->wrapperCodec_;
        }
    }
    return nullptr;
}
