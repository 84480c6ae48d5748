// Calls the implementation of a method as its wrapper does, without a server: what it answers comes back as it filled
// it in. An implementation that asks its Daemon needs one that serves, say a kit::SimulatedDaemon.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include <unistd.h>

#include "host/answer/answer.h"

namespace kit {

// What an implementation gets as its reply context, and hands to TarnHost_Reply and its like.
struct ReplyContext {
    std::mutex mutex;
    std::condition_variable changed;
    void *record = nullptr; // the reply
    uint32_t status = 0;    // in place of one
    std::string reason;     // that was explained
    uint32_t cancelled = 0; // why the answer is not wanted any more
    uint32_t remainingMs = UINT32_MAX;
    TarnHost_Peer peer{static_cast<uint32_t>(getpid()), 0, 0, 1}; // who calls: root
    bool peerLives = true;
};

// What is explained on this thread while it lives goes to the context.
class RunningMethod {
public:
    explicit RunningMethod(ReplyContext &context);
    ~RunningMethod();
    RunningMethod(const RunningMethod &) = delete;
    RunningMethod &operator=(const RunningMethod &) = delete;
};

template <class Response>
class MethodAnswer {
public:
    explicit MethodAnswer(std::unique_ptr<ReplyContext> context) : context_(std::move(context)) {}
    MethodAnswer(const MethodAnswer &) = delete;
    MethodAnswer &operator=(const MethodAnswer &) = delete;
    ~MethodAnswer() {
        if (context_->record != nullptr) {
            host::Release(static_cast<Response *>(context_->record));
        }
    }

    // Of an implementation that answers later.
    void Wait() const {
        std::unique_lock lock(context_->mutex);
        context_->changed.wait(lock, [this] { return context_->record != nullptr || context_->status != 0; });
    }
    void Cancel(uint32_t reason) const {
        const std::lock_guard lock(context_->mutex);
        context_->cancelled = reason;
    }

    uint32_t Status() const {
        const std::lock_guard lock(context_->mutex);
        return context_->status;
    }
    std::string Reason() const {
        const std::lock_guard lock(context_->mutex);
        return context_->reason;
    }
    // Throws where there is no reply.
    const Response *operator->() const {
        const std::lock_guard lock(context_->mutex);
        if (context_->record == nullptr) {
            throw std::system_error(static_cast<int>(context_->status), std::generic_category(), "no reply");
        }
        return static_cast<const Response *>(context_->record);
    }

private:
    const std::unique_ptr<ReplyContext> context_;
};

// What an implementation answers to a request of which the context says the rest.
template <class Response, class Request>
MethodAnswer<Response> CallMethod(uint32_t (*method)(const Request *, void *), const Request &request,
                                  std::unique_ptr<ReplyContext> context) {
    {
        const RunningMethod running(*context);
        if (const uint32_t status = method(&request, context.get()); status != 0) {
            TarnHost_ReplyStatus(context.get(), status);
        }
    }
    return MethodAnswer<Response>(std::move(context));
}

// The same to a peer: of another user, or in the name of another process.
template <class Response, class Request>
MethodAnswer<Response> CallAs(const TarnHost_Peer &peer, uint32_t (*method)(const Request *, void *),
                              const Request &request) {
    auto context = std::make_unique<ReplyContext>();
    context->peer = peer;
    return CallMethod<Response>(method, request, std::move(context));
}

// kit::CallMethod<Tarn_sys_diag_DisOsResourceInfoRet>(GetKpiCpuInfo, Tarn_sys_diag_DisOsResourceInfoInput{})
template <class Response, class Request>
MethodAnswer<Response> CallMethod(uint32_t (*method)(const Request *, void *), const Request &request,
                                  uint32_t cancelled = 0) {
    auto context = std::make_unique<ReplyContext>();
    context->cancelled = cancelled;
    return CallMethod<Response>(method, request, std::move(context));
}

} // namespace kit
