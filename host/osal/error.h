// Failures as exceptions that carry an errno value.
#pragma once

#include <cerrno>
#include <string>
#include <system_error>

#include <fmt/format.h>

namespace host {

[[noreturn]] inline void Fail(int error, const std::string &what) {
    throw std::system_error(error, std::generic_category(), what);
}

// A request with a value that is not allowed.
template <class Value>
std::system_error BadValue(const char *member, const Value &value, const std::string &expected) {
    return {EINVAL, std::generic_category(), fmt::format("{} is {}, expected {}", member, value, expected)};
}

} // namespace host
