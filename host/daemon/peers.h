// The processes that the daemon calls, through the library's proxies.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "tarn_sysdiag/host/call.h"
#include "tarn_sysdiag/platform/rpc.h"

namespace tarnd {

// One call of a proxy.
struct PeerCall {
    uint32_t pid; // whose agent; 0: the master
    uint32_t timeoutMs;
    void (*proxy)(); // which, for who stands in for the peers
    const void *request;
    void *response; // null for a method without reply
    std::function<IdlCallResult(TarnHost_InvokeCtx *ctx)> run;
};

class Peers {
public:
    virtual ~Peers() = default;

    virtual bool HasAgent(uint32_t pid) = 0; // that is, a socket of one
    virtual bool HasProcess(uint32_t pid) = 0;
    virtual void Forget(uint32_t pid) = 0; // connections to the agent that the process had
    virtual void RemoveDeadAgents() = 0;   // what agents left in the run directory that have ended

    virtual IdlCallResult Call(const PeerCall &call) = 0;
    virtual std::string LastError() = 0;   // why the last call of this thread failed
    virtual std::string Explanation() = 0; // why the result in its reply is a failure
};

// Those that the client behind the proxies reaches.
class RemotePeers final : public Peers {
public:
    bool HasAgent(uint32_t pid) override;
    bool HasProcess(uint32_t pid) override;
    void Forget(uint32_t pid) override;
    void RemoveDeadAgents() override;
    IdlCallResult Call(const PeerCall &call) override;
    std::string LastError() override { return TarnHost_LastError(); }
    std::string Explanation() override { return TarnHost_Explanation(); }
};

} // namespace tarnd
