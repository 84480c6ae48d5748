// The daemon's figures as metrics, for the monitoring that people have.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "host/describe/json.h"
#include "host/runtime/status.h"

namespace host::metrics {

// How the daemon is asked. What fails throws std::runtime_error, which says why.
struct Source {
    // The reply to a method's empty request, in the names of the wire; nothing where there is nothing to tell yet.
    std::function<std::optional<describe::Json>(const std::string &method)> call;
    // The events of the journal, the last so many: an array.
    std::function<describe::Json(uint32_t last)> events;
};

// Shares are ratios, times in seconds, sizes in bytes; the names of metrics end in the unit. No label has a process in
// it. What could not be asked is left out, and named by tarn_metrics_unanswered.
std::string MetricsOf(const ServerStatus &status, const Source &source);

} // namespace host::metrics
