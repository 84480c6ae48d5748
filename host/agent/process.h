// The process that the agent is in.
#pragma once

#include <unistd.h>

#include <cstdint>

namespace agent {

inline uint32_t OwnPid() {
    return static_cast<uint32_t>(getpid());
}

} // namespace agent
