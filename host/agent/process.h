// The process that the agent is in.
#pragma once

#include <unistd.h>

#include <cstdint>

#include "host/osal/error.h"

namespace agent {

inline uint32_t OwnPid() {
    return static_cast<uint32_t>(getpid());
}

// The process whose agent a request means.
inline void CheckProcess(const char *member, uint32_t pid) {
    if (pid != 0 && pid != OwnPid()) {
        throw host::BadValue(member, pid, "0 or this agent's process");
    }
}

} // namespace agent
