// What a function fails with.
#pragma once

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

} // namespace kit
