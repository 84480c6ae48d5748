// Asks the agent of a process. What keeps an agent from answering is thrown as std::system_error: ESRCH without an
// agent, ETIMEDOUT for one that does not answer in time or is set aside since it did not before, or what the runtime or
// the agent's method ended with.
#pragma once

#include <memory>

#include "host/daemon/agents/silent_agents.h"
#include "host/daemon/peers.h"
#include "host/osal/error.h"
#include "tarn_sysdiag/client/agent.h"

namespace tarnd {

// Shorter than a call's default deadline, so that the caller hears of an agent that hangs before its own deadline.
constexpr uint32_t kRelayTimeoutMs = 3000;

// The process that an agent is asked about is its own, which in a namespace of its own has another number than here.
constexpr uint32_t kAgentsOwn = 0;

// A method of the agent: its proxy, and what fills the codec table that releases its reply. TARND_AGENT_METHOD(Method)
// names one.
template <class Request, class Response>
struct AgentMethod {
    using Call = IdlCallResult (*)(const Request *, Response *, void *);
    using FillCodec = void (*)(IdlCodecTable *);

    constexpr AgentMethod(Call theCall, FillCodec theFillCodec) : call(theCall), fillCodec(theFillCodec) {}

    Call call;
    FillCodec fillCodec;
};

#define TARND_AGENT_METHOD(method)                                                                                     \
    tarnd::AgentMethod {                                                                                               \
        TarnSysdiagAgent_##method, TarnSysdiagAgent_##method##SetIdl                                                   \
    }

// A reply, and what releases it if a proxy decoded it.
template <class Response>
struct AgentReply {
    AgentReply() = default;
    AgentReply(const AgentReply &) = delete;
    AgentReply &operator=(const AgentReply &) = delete;
    ~AgentReply() {
        if (fillCodec != nullptr) {
            IdlCodecTable codec{};
            fillCodec(&codec);
            codec.pfnFreeUnpacked(&record);
        }
    }

    // Throws a result that is a failure, with the agent's reason; `what` was asked of which agent.
    void RequireResult(const std::string &what) const {
        if (record.uiResult != 0) {
            host::Fail(static_cast<int>(record.uiResult), explanation.empty() ? what : what + ": " + explanation);
        }
    }

    Response record{};
    std::string explanation; // why its result is a failure
    void (*fillCodec)(IdlCodecTable *) = nullptr;
};

class AgentLine {
public:
    AgentLine(const host::Clocks &clocks, Peers &peers) : peers_(peers), silent_(clocks) {}

    // Whether agents that are set aside are asked as well.
    enum class Whom { kThatAnswer, kAlsoSilent };

    // Calls a method of an agent and waits for its reply.
    template <class Request, class Response>
    std::shared_ptr<AgentReply<Response>> Ask(const AgentMethod<Request, Response> &method, uint32_t pid,
                                              const Request &request, uint32_t timeoutMs = kRelayTimeoutMs,
                                              Whom whom = Whom::kThatAnswer) {
        auto reply = std::make_shared<AgentReply<Response>>();
        const auto run = [&](TarnHost_InvokeCtx *ctx) {
            reply->fillCodec = method.fillCodec;
            return method.call(&request, &reply->record, ctx);
        };
        Call({pid, timeoutMs, reinterpret_cast<void (*)()>(method.call), &request, &reply->record, run}, whom);
        reply->explanation = peers_.Explanation();
        return reply;
    }

    // Calls a method without reply and waits until it is done.
    template <class Request>
    void Do(IdlCallResult (*method)(const Request *, void *), uint32_t pid, const Request &request,
            uint32_t timeoutMs = kRelayTimeoutMs) {
        const auto run = [&](TarnHost_InvokeCtx *ctx) { return method(&request, ctx); };
        Call({pid, timeoutMs, reinterpret_cast<void (*)()>(method), &request, nullptr, run}, Whom::kThatAnswer);
    }

    // Sends to a method without reply: Tell(TarnSysdiagAgent_<Method>_oneway, pid, request).
    template <class Request>
    void Tell(uint32_t (*oneway)(const Request *, void *), uint32_t pid, const Request &request) {
        const auto run = [&](TarnHost_InvokeCtx *ctx) { return IdlCallResult{0, oneway(&request, ctx)}; };
        Call({pid, kRelayTimeoutMs, reinterpret_cast<void (*)()>(oneway), &request, nullptr, run}, Whom::kThatAnswer);
    }

    const SilentAgents &Silent() const { return silent_; }

    // The process has another agent, or none: connections to the one before are not used again.
    void Forget(uint32_t pid) { peers_.Forget(pid); }
    // The process has ended; another that gets its id has not been silent.
    void ForgetProcess(uint32_t pid) {
        peers_.Forget(pid);
        silent_.Forget(pid);
    }
    void RemoveDeadAgents() { peers_.RemoveDeadAgents(); }

private:
    void Call(const PeerCall &call, Whom whom);
    void Note(const PeerCall &call, uint32_t error);

    Peers &peers_;
    SilentAgents silent_;
};

} // namespace tarnd
