// How long a request may wait for a helper.
#pragma once

#include <chrono>

#include "host/stacks/helper.h"
#include "tarn_sysdiag/host/reply.h"

namespace tarnd {

// Some of the request's time is left to tell its caller what there is without the helper's answer.
inline host::stacks::Deadline HelperDeadline(void *replyCtx) {
    const std::chrono::milliseconds remaining(TarnHost_RemainingMs(replyCtx));
    return std::chrono::steady_clock::now() + remaining - remaining / 10;
}

} // namespace tarnd
