// What a function fails with.
#pragma once

#include <string>
#include <system_error>

namespace kit {

// The errno value of what it throws; 0 when it returns.
template <class Function>
int ErrorOf(Function function) {
    try {
        function();
        return 0;
    } catch (const std::system_error &error) {
        return error.code().value();
    }
}

// The same in words, without the error's own text; empty when it returns.
template <class Function>
std::string ReasonOf(Function function) {
    try {
        function();
        return "";
    } catch (const std::system_error &error) {
        const std::string what = error.what();
        return what.substr(0, what.rfind(": "));
    }
}

} // namespace kit
