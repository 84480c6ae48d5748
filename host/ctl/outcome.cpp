#include "host/ctl/outcome.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

namespace ctl {

namespace {

ExitCode CodeOf(const host::CallOutcome &outcome) {
    switch (outcome.errCode) {
    case 0: // the method's own status
    case EACCES:
    case EBUSY:
    case EMSGSIZE:
    case EPROTOTYPE:
    case EBADMSG:
        return kRemote;
    case ETIMEDOUT:
        return kDeadline;
    default:
        return kConnection;
    }
}

} // namespace

Failure FailureOf(std::string_view service, std::string_view method, const host::CallOutcome &outcome) {
    const std::string name = fmt::format("{}.{}", service, method);
    const bool remote = outcome.errCode == 0;
    std::string what = remote && outcome.status == ENOSYS ? "not implemented" : outcome.text;
    if (what.empty()) {
        what = strerror(static_cast<int>(remote ? outcome.status : outcome.errCode));
    }
    if (!what.starts_with(name)) { // else the runtime names the method, and where
        what = name + ": " + what;
    }
    const std::string code =
        remote ? fmt::format("status {}", outcome.status) : fmt::format("error {}", outcome.errCode);
    return {CodeOf(outcome), what + (what.find(code) == what.npos ? fmt::format(" ({})", code) : "")};
}

} // namespace ctl
