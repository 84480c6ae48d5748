// Waits for what another thread or process does.
#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

namespace kit {

// Processes under a sanitizer are slow to start.
constexpr std::chrono::seconds kPatience{20};

// Whether a condition comes true within kPatience.
inline bool Eventually(const std::function<bool()> &condition) {
    using namespace std::chrono_literals;
    std::chrono::microseconds pause = 10us; // most of what is waited for comes soon
    for (const auto end = std::chrono::steady_clock::now() + kPatience; std::chrono::steady_clock::now() < end;) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(pause);
        pause = std::min<std::chrono::microseconds>(2 * pause, 20ms);
    }
    return false;
}

// The same, for what the test can't do without: it fails with these words.
inline bool Await(const char *what, const std::function<bool()> &condition) {
    const bool came = Eventually(condition);
    EXPECT_TRUE(came) << "waited " << kPatience.count() << " s for this: " << what;
    return came;
}

} // namespace kit
