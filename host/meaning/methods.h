// The methods of all services, with what they mean: host::methods::PidIsOnline knows its records' types.
#pragma once

#include "host/meaning/check.h"
#include "host/meaning/meaning.h"
#include "tarn_sysdiag/types/agent.h"
#include "tarn_sysdiag/types/common.h"
#include "tarn_sysdiag/types/master.h"
#include "tarn_sysdiag/types/tarnd.h"
#include "tarn_sysdiag/types/tarnd_agent.h"

namespace host::meaning {

struct NoRecord {};

template <class RequestRecord, class ResponseRecord>
struct MethodOf : Method {
    using Request = RequestRecord;
    using Response = ResponseRecord; // NoRecord for a method without reply
};

// Throws the error of a bad value for a request that the method does not accept.
template <class Request, class Response>
void Check(const MethodOf<Request, Response> &method, const Request &request) {
    Check(*method.request, &request);
}

} // namespace host::meaning

namespace host::methods {

#define TARN_SERVICE_METHOD(service, method, request, response)                                                        \
    extern const meaning::MethodOf<Tarn_sys_diag_##request, Tarn_sys_diag_##response> method;
#define TARN_SERVICE_METHOD_NO_REPLY(service, method, request)                                                         \
    extern const meaning::MethodOf<Tarn_sys_diag_##request, meaning::NoRecord> method;
#include "host/meaning/all_methods.h"

} // namespace host::methods
