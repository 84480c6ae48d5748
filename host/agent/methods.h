// The methods of TarnSysdiagAgent; each stands in the file of its subject.
#pragma once

#include <cstdint>
#include <string>

#include "host/agent/process.h"
#include "host/answer/answer.h"
#include "tarn_sysdiag/types/agent.h"

namespace agent {

#define TARN_METHOD(method, request, response) uint32_t method(const Tarn_sys_diag_##request *request_, void *replyCtx);
#define TARN_METHOD_NO_REPLY(method, request) uint32_t method(const Tarn_sys_diag_##request *request_);
#include "tarn_sysdiag/client/agent_methods.h"

// The process whose agent a request means.
inline void CheckProcess(const host::meaning::Method &method, uint32_t process) {
    if (process != 0 && process != OwnPid()) {
        throw host::meaning::BadMember(method, "process", process, fmt::format("0 or {}, the agent's own", OwnPid()));
    }
}

// The part of a list that a request wants.
class Choice {
public:
    Choice(uint32_t skip, uint32_t limit) : skip_(skip), limit_(limit) {}

    // Counts a match, and says whether it is to be returned.
    bool Takes() {
        const uint32_t index = matches_++;
        return index >= skip_ && (limit_ == 0 || index - skip_ < limit_);
    }
    uint32_t Matches() const { return matches_; }

private:
    const uint32_t skip_;
    const uint32_t limit_;
    uint32_t matches_ = 0;
};

} // namespace agent
