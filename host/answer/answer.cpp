#include "host/answer/answer.h"

#include <new>
#include <string>

#include "host/osal/log.h"

namespace host {

namespace {

// Without what the status says itself.
std::string ReasonOf(const std::system_error &error) {
    const std::string reason = error.what(), status = ": " + error.code().message();
    return reason.ends_with(status) ? reason.substr(0, reason.size() - status.size()) : reason;
}

} // namespace

uint32_t StatusOfException(const char *method) {
    try {
        throw;
    } catch (const std::system_error &error) {
        Log().warn("{}: {}", method, error.what());
        TarnHost_Explain(ReasonOf(error).c_str());
        return error.code().value() != 0 ? static_cast<uint32_t>(error.code().value()) : EIO;
    } catch (const std::bad_alloc &) {
        Log().error("{}: out of memory", method);
        return ENOMEM;
    } catch (const std::exception &error) {
        Log().error("{}: {}", method, error.what());
        return EIO;
    } catch (...) {
        Log().error("{}: an unknown failure", method);
        return EIO;
    }
}

} // namespace host
