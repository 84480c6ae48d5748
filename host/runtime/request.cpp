#include "host/runtime/request.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>

#include "host/osal/log.h"
#include "host/runtime/encode.h"
#include "host/runtime/reply.h"

namespace host {
namespace {

// The requests whose wrappers run on this thread, innermost first.
thread_local Request *running = nullptr;

std::chrono::milliseconds DeadlineOf(const FrameHeader &header, const Limits &limits) {
    const std::chrono::milliseconds asked(header.deadlineMs);
    return asked.count() == 0 ? limits.deadline : std::min(asked, limits.maxDeadline);
}

} // namespace

// The requests that are still to be answered, by reply context. Whoever takes one out answers it.
class Request::Live {
public:
    static Live &Get() {
        static auto &live = *new Live; // replies may come while the process ends
        return live;
    }

    void Enter(const std::shared_ptr<Request> &request) {
        const std::lock_guard lock(mutex_);
        do {
            ++last_;
        } while (last_ == 0 || requests_.count(last_) != 0);
        request->context_ = last_;
        requests_.emplace(last_, request);
    }

    std::shared_ptr<Request> Claim(uintptr_t context) {
        std::shared_ptr<Request> request;
        {
            const std::lock_guard lock(mutex_);
            const auto found = requests_.find(context);
            if (found == requests_.end()) {
                return nullptr;
            }
            request = std::move(found->second);
            requests_.erase(found);
        }
        request->StopTimer();
        return request;
    }

    std::vector<uintptr_t> ContextsOf(const void *server) {
        const std::lock_guard lock(mutex_);
        std::vector<uintptr_t> contexts;
        for (const auto &[context, request] : requests_) {
            if (request->source_->GetServer() == server) {
                contexts.push_back(context);
            }
        }
        return contexts;
    }

private:
    std::mutex mutex_;
    uintptr_t last_ = 0;
    std::unordered_map<uintptr_t, std::shared_ptr<Request>> requests_;
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

Request::Request(std::shared_ptr<RequestSource> source, Frame frame)
    : source_(std::move(source)), frame_(std::move(frame)),
      deadline_(std::chrono::steady_clock::now() + DeadlineOf(frame_.header, source_->GetLimits())) {}

Request::~Request() {
    source_->Finished();
}

void Request::Run(IdlWrapperFn wrapper) {
    Live::Get().Enter(shared_from_this());
    const uintptr_t context = context_;
    IdlServerCodecTable lent{};
    lent.pRuntimeWord = this;
    uint32_t status;
    {
        const Scope scope(this);
        status = wrapper(this, reinterpret_cast<void *>(context), &lent);
    }
    if (status == 0 && lent.stCodec.pfnPack != nullptr) {
        StartTimer();
        return;
    }
    const auto unanswered = Live::Get().Claim(context);
    if (unanswered == nullptr) {
        Log().warn("{}: status {} after the request had been answered", Label(), status);
    } else if (status != 0) {
        Fail(status);
    } else {
        SendReply(std::vector<uint8_t>(kHeaderSize));
    }
}

void Request::Refuse(uint32_t errCode, const std::string &text) {
    SendError(0, errCode, text);
}

void Request::RefuseAll(const void *server, uint32_t errCode, const std::string &text) {
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
        codec.stCodec.pfnUnpack(bytes, static_cast<uint32_t>(frame_.payload.size()), record) == nullptr) {
        undecodable_ = true;
        return nullptr;
    }
    record_ = record;
    return record;
}

void Request::Reply(void *response) {
    std::vector<uint8_t> bytes;
    const uint32_t limit = source_->GetLimits().messageBytes;
    const uint32_t error = Encode(kept_.stCodec, response, kHeaderSize, limit, bytes);
    if (kept_.stCodec.pfnUsrFree != nullptr) {
        kept_.stCodec.pfnUsrFree(response);
    }
    if (error == 0) {
        SendReply(std::move(bytes));
        return;
    }
    const std::string text =
        error == EMSGSIZE ? fmt::format("the reply is larger than {} bytes", limit) : "the reply can't be encoded";
    Log().error("{}: {}", Label(), text);
    SendError(0, error, text);
}

void Request::Fail(uint32_t status) {
    if (undecodable_) {
        SendError(status, 0, fmt::format("the request of {} bytes is not a valid message", frame_.payload.size()));
    } else if (status == ENOSYS) {
        SendError(status, 0, "not implemented");
    } else {
        SendError(status, 0,
                  fmt::format("status {} ({})", status,
                              strerrordesc_np(static_cast<int>(status)) == nullptr
                                  ? "not an errno value"
                                  : strerrordesc_np(static_cast<int>(status))));
    }
}

void Request::SendReply(std::vector<uint8_t> frame) {
    if (IsOneway()) {
        return;
    }
    FrameHeader header;
    header.kind = FrameKind::kReply;
    header.id = frame_.header.id;
    header.typeHash = frame_.header.typeHash;
    header.length = static_cast<uint32_t>(frame.size() - kHeaderSize);
    WriteHeader(header, std::span(frame).first<kHeaderSize>());
    source_->SendAnswer(std::move(frame));
}

void Request::SendError(uint32_t status, uint32_t errCode, const std::string &text) {
    const std::string whole = fmt::format("{}: {}", Label(), text);
    if (IsOneway()) {
        Log().warn("one-way {}", whole);
        return;
    }
    FrameHeader header;
    header.kind = FrameKind::kError;
    header.id = frame_.header.id;
    header.typeHash = frame_.header.typeHash;
    header.status = status;
    header.errCode = errCode;
    source_->SendAnswer(MakeFrame(header, {reinterpret_cast<const uint8_t *>(whole.data()), whole.size()}));
}

void Request::StartTimer() {
    const std::lock_guard lock(mutex_);
    if (answered_) {
        return;
    }
    timer_.emplace(source_->GetIo(), deadline_);
    timer_->async_wait([context = context_](std::error_code error) {
        const auto request = error ? nullptr : Live::Get().Claim(context);
        if (request != nullptr) {
            request->SendError(0, ETIMEDOUT, "not answered within its deadline");
        }
    });
}

void Request::StopTimer() {
    const std::lock_guard lock(mutex_);
    answered_ = true;
    timer_.reset();
}

uint32_t AnswerRecord(void *replyCtx, void *response) {
    if (replyCtx == nullptr || response == nullptr) {
        return EINVAL;
    }
    const auto request = Request::Live::Get().Claim(reinterpret_cast<uintptr_t>(replyCtx));
    if (request == nullptr) {
        return EALREADY;
    }
    request->Reply(response);
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
    request->Fail(status);
    return 0;
}

} // namespace host

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
            return &request->kept_;
        }
    }
    return nullptr;
}
