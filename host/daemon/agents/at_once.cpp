#include "host/daemon/agents/at_once.h"

#include <algorithm>
#include <atomic>
#include <thread>

#include "host/osal/attempt.h"

namespace tarnd {

namespace {

constexpr size_t kMostThreads = 16;

} // namespace

void AskAtOnce(const char *what, const std::vector<uint32_t> &pids, const std::function<void(uint32_t pid)> &ask) {
    std::atomic<size_t> next = 0;
    const auto askSome = [&] {
        for (size_t at = next++; at < pids.size(); at = next++) {
            host::Attempt(what, [&] { ask(pids[at]); });
        }
    };
    std::vector<std::jthread> others;
    host::Attempt(what, [&] { // with fewer threads it takes longer
        while (others.size() + 1 < std::min(pids.size(), kMostThreads)) {
            others.emplace_back(askSome);
        }
    });
    askSome();
}

} // namespace tarnd
