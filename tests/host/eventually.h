// Waits for what another thread or process does.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace kit {

// Whether a condition comes true within some seconds: processes under a sanitizer are slow to start.
inline bool Eventually(const std::function<bool()> &condition) {
    using namespace std::chrono_literals;
    for (const auto end = std::chrono::steady_clock::now() + 20s; std::chrono::steady_clock::now() < end;) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(20ms);
    }
    return false;
}

} // namespace kit
