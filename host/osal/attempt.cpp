#include "host/osal/attempt.h"

#include <cerrno>
#include <new>

#include "host/osal/log.h"

namespace host {

std::string ReasonOf(const std::system_error &error) {
    const std::string reason = error.what(), status = ": " + error.code().message();
    return reason.ends_with(status) ? reason.substr(0, reason.size() - status.size()) : reason;
}

Failure LogFailure(const char *what) {
    try {
        throw;
    } catch (const std::system_error &error) {
        Log().warn("{}: {}", what, error.what());
        return {error.code().value() != 0 ? static_cast<uint32_t>(error.code().value()) : EIO, ReasonOf(error)};
    } catch (const std::bad_alloc &) {
        Log().error("{}: out of memory", what);
        return {ENOMEM, {}};
    } catch (const std::exception &error) {
        Log().error("{}: {}", what, error.what());
        return {EIO, {}};
    } catch (...) {
        Log().error("{}: an unknown failure", what);
        return {EIO, {}};
    }
}

} // namespace host
