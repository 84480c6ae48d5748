#include "host/answer/answer.h"

#include "host/osal/attempt.h"

namespace host {

uint32_t StatusOfException(const char *method) {
    const Failure failure = LogFailure(method);
    if (!failure.reason.empty()) {
        TarnHost_Explain(failure.reason.c_str());
    }
    return failure.error;
}

} // namespace host
