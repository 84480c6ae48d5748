// Tells with a reply who made the setting that it shows.
#pragma once

#include <fmt/format.h>

#include "host/daemon/setting.h"
#include "tarn_sysdiag/host/reply.h"

namespace tarnd {

inline void ExplainSource(void *replyCtx, const char *what, Source source) {
    TarnHost_ExplainReply(replyCtx, fmt::format("{} from {}", what, NameOf(source)).c_str());
}

} // namespace tarnd
