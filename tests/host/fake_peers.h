// Agents and a master that answer as a test says, in the test's own process.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "host/daemon/agents/agent_line.h"

namespace kit {

class FakePeers final : public tarnd::Peers {
public:
    template <class Request, class Response>
    using Answer = std::type_identity_t<std::function<IdlCallResult(uint32_t pid, const Request &, Response &)>>;

    // What a method answers: of an agent, TARND_AGENT_METHOD(Method); of the master, its proxy.
    template <class Request, class Response>
    void On(tarnd::AgentMethod<Request, Response> method, Answer<Request, Response> answer) {
        On(method.call, std::move(answer));
    }
    template <class Request, class Response>
    void On(IdlCallResult (*proxy)(const Request *, Response *, void *), Answer<Request, Response> answer) {
        answers_[reinterpret_cast<void (*)()>(proxy)] = [answer](const tarnd::PeerCall &call) {
            return answer(call.pid, *static_cast<const Request *>(call.request),
                          *static_cast<Response *>(call.response));
        };
    }
    // The same for a method that is not answered.
    template <class Request>
    void OnOneway(uint32_t (*oneway)(const Request *, void *),
                  std::type_identity_t<std::function<uint32_t(uint32_t pid, const Request &)>> take) {
        answers_[reinterpret_cast<void (*)()>(oneway)] = [take](const tarnd::PeerCall &call) {
            return IdlCallResult{0, take(call.pid, *static_cast<const Request *>(call.request))};
        };
    }

    bool HasAgent(uint32_t pid) override { return agents.count(pid) != 0; }
    bool HasProcess(uint32_t pid) override { return ended.count(pid) == 0; }
    void Forget(uint32_t pid) override { forgotten.push_back(pid); }
    void RemoveDeadAgents() override { ++sweeps; }
    std::string LastError() override { return lastError; }
    std::string Explanation() override { return explanation; }

    // Methods that a test says nothing of answer with nothing.
    IdlCallResult Call(const tarnd::PeerCall &call) override {
        const std::lock_guard lock(mutex_); // several may be asked at the same time
        calls.push_back({call.pid, call.timeoutMs});
        const auto answer = answers_.find(call.proxy);
        return answer == answers_.end() ? IdlCallResult{0, 0} : answer->second(call);
    }

    struct Called {
        uint32_t pid;
        uint32_t timeoutMs;
    };
    std::vector<Called> calls;
    std::set<uint32_t> agents; // that have a socket
    std::set<uint32_t> ended;  // processes
    std::vector<uint32_t> forgotten;
    size_t sweeps = 0; // of what agents left
    std::string lastError = "as the test says";
    std::string explanation; // of every reply

private:
    std::mutex mutex_;
    std::map<void (*)(), std::function<IdlCallResult(const tarnd::PeerCall &)>> answers_;
};

} // namespace kit
