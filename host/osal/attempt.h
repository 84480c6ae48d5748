// Runs what may throw where nobody could catch it: at the start of a thread, below a C function, in a loop that goes
// on.
#pragma once

#include <cstdint>
#include <string>
#include <system_error>

namespace host {

struct Failure {
    uint32_t error = 0; // errno value
    std::string reason; // without what the value says itself
};

// What went wrong, without what the value says itself.
std::string ReasonOf(const std::system_error &error);

// Logs the exception in flight with what was attempted. To be called from a catch block.
Failure LogFailure(const char *what);

// How the function failed by what it threw, which is logged; with error 0 where it did not.
template <class Function>
Failure FailureOf(const char *what, Function function) {
    try {
        function();
        return {};
    } catch (...) {
        return LogFailure(what);
    }
}

// 0, or the errno value of what the function threw, which is logged.
template <class Function>
uint32_t Attempt(const char *what, Function function) {
    return FailureOf(what, function).error;
}

} // namespace host
