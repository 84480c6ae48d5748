// Asks the agent of a process, through the library's proxies. What keeps an agent from answering is thrown as
// std::system_error: EINVAL for process 0, ESRCH without an agent, ETIMEDOUT for one that does not answer in time, or
// what the runtime or the agent's method ended with.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "client/agent.h"
#include "host/answer/answer.h"
#include "host/runtime/client.h"

namespace tarnd {

// Shorter than a call's default deadline, so that the caller hears of an agent that hangs before its own deadline.
constexpr uint32_t kRelayTimeoutMs = 3000;

// How long an agent has for its part of a request that the daemon is working on; throws ETIMEDOUT when nothing is left.
uint32_t RelayTimeout(void *replyCtx);

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

// A reply that a proxy decoded, released in the way that the method's codec table says.
template <class Response>
class AgentReply {
public:
    explicit AgentReply(void (*fillCodec)(IdlCodecTable *)) : fillCodec_(fillCodec) {}
    AgentReply(const AgentReply &) = delete;
    AgentReply &operator=(const AgentReply &) = delete;
    ~AgentReply() {
        IdlCodecTable codec{};
        fillCodec_(&codec);
        codec.pfnFreeUnpacked(&record);
    }

    Response record{};

private:
    void (*const fillCodec_)(IdlCodecTable *);
};

// How the runtime finds the agent; throws unless it has a socket.
TarnHost_InvokeCtx AgentOf(uint32_t pid, uint32_t timeoutMs);

// Throws what a call of an agent ended with, unless it succeeded.
void CheckAgent(const IdlCallResult &result, uint32_t pid);

// Calls a method of an agent and waits for its reply.
template <class Request, class Response>
std::shared_ptr<AgentReply<Response>> AskAgent(const AgentMethod<Request, Response> &method, uint32_t pid,
                                               const Request &request, uint32_t timeoutMs = kRelayTimeoutMs) {
    TarnHost_InvokeCtx ctx = AgentOf(pid, timeoutMs);
    auto reply = std::make_shared<AgentReply<Response>>(method.fillCodec);
    CheckAgent(method.call(&request, &reply->record, &ctx), pid);
    return reply;
}

// Sends to a method without reply: TellAgent(TarnSysdiagAgent_<Method>_oneway, pid, request).
template <class Request>
void TellAgent(uint32_t (*oneway)(const Request *, void *), uint32_t pid, const Request &request) {
    TarnHost_InvokeCtx ctx = AgentOf(pid, kRelayTimeoutMs);
    CheckAgent({0, oneway(&request, &ctx)}, pid);
}

// Answers a request with what an agent answers to it, all of it within the request's own deadline.
template <class Request, class Response>
uint32_t Relay(const char *name, void *replyCtx, const AgentMethod<Request, Response> &method, uint32_t pid,
               const Request &request) {
    return host::Answer<Response>(name, replyCtx, [&](auto &reply) {
        auto answer = AskAgent(method, pid, request, RelayTimeout(replyCtx));
        static_cast<Response &>(reply) = answer->record;
        reply.KeepOwner(std::move(answer));
    });
}

// How a call of one agent ended, of several: 0 or an errno value.
struct AgentOutcome {
    uint32_t pid;
    std::string name;
    uint32_t error;
};

// Runs a function, which may throw, for each registered agent, one after the other; a failure is logged. An agent that
// hangs must not cost the others' time: give each a short timeout.
std::vector<AgentOutcome> ForAllAgents(const char *what, const std::function<void(uint32_t pid)> &function);

} // namespace tarnd
