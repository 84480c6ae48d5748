// Why a method refuses a request before its handler looks at it.
#pragma once

#include <string>

#include "host/meaning/methods.h"
#include "tests/host/error_of.h"

namespace kit {

// In words; empty when it takes the request.
template <class Request, class Response>
std::string Refusal(const host::meaning::MethodOf<Request, Response> &method, const Request &request) {
    return ReasonOf([&] { host::meaning::Check(method, request); });
}

} // namespace kit
