// Answers a request with what the agent of a process answers to it, its explanation included.
#pragma once

#include "host/answer/answer.h"
#include "host/daemon/daemon.h"

namespace tarnd {

// How long an agent has for its part of a request that the daemon is working on; throws ETIMEDOUT when nothing is left.
uint32_t RelayTimeout(void *replyCtx);

// All of it within the request's own deadline. What keeps the agent from answering is the reply's result, where it has
// one. The agent's reply may be adapted before it is passed on.
constexpr auto kAsItIs = [](auto &) {};
template <class Own, class Request, class Response, class Adapt = decltype(kAsItIs)>
uint32_t Relay(const host::meaning::MethodOf<Own, Response> &method, const Own *request, void *replyCtx,
               const AgentMethod<Request, Response> &agentMethod, uint32_t pid, const Request &agentRequest,
               const Adapt &adapt = kAsItIs) {
    const auto fill = [&](auto &reply) {
        auto answer = Daemon::Serving().agentLine.Ask(agentMethod, pid, agentRequest, RelayTimeout(replyCtx));
        TarnHost_ExplainReply(replyCtx, answer->explanation.c_str());
        static_cast<Response &>(reply) = answer->record;
        reply.KeepOwner(std::move(answer));
        adapt(reply);
    };
    return host::meaning::HasResult(*method.response) ? host::AnswerWithResult(method, request, replyCtx, fill)
                                                      : host::Answer(method, request, replyCtx, fill);
}

} // namespace tarnd
