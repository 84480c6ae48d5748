// Asks the master.
#pragma once

#include <functional>
#include <stdexcept>
#include <utility>

#include "host/daemon/peers.h"
#include "tarn_sysdiag/client/master.h"

namespace tarnd {

struct MasterUnreachable : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class MasterLine {
public:
    explicit MasterLine(Peers &peers) : peers_(peers) {}

    // Has a function take a reply over. What the master has not configured, or is wrong with it, is only logged. Throws
    // MasterUnreachable when there is no answer.
    template <class Request, class Response, class Take>
    void Ask(const char *name, IdlCallResult (*proxy)(const Request *, Response *, void *), const Request &request,
             Take take) {
        Response reply{}; // none of the master's owns memory
        const auto run = [&](TarnHost_InvokeCtx *ctx) { return proxy(&request, &reply, ctx); };
        Call(name, {0, kTimeoutMs, reinterpret_cast<void (*)()>(proxy), &request, &reply, run},
             [&] { take(std::as_const(reply)); });
    }

    // To a method without reply. Throws MasterUnreachable when it can't be sent.
    template <class Request>
    void Tell(uint32_t (*oneway)(const Request *, void *), const Request &request) {
        const auto run = [&](TarnHost_InvokeCtx *ctx) { return IdlCallResult{0, oneway(&request, ctx)}; };
        Send({0, kTimeoutMs, reinterpret_cast<void (*)()>(oneway), &request, nullptr, run});
    }

private:
    static constexpr uint32_t kTimeoutMs = 1000;

    void Call(const char *name, const PeerCall &call, const std::function<void()> &take);
    void Send(const PeerCall &call);

    Peers &peers_;
};

} // namespace tarnd
