#include "host/ctl/interrupt.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <thread>

namespace ctl {

bool ReaderHasGone() {
    pollfd output{STDOUT_FILENO, 0, 0};
    return poll(&output, 1, 0) > 0 && (output.revents & (POLLERR | POLLHUP)) != 0;
}

void EndBy(int signal) {
    std::signal(signal, SIG_DFL);
    std::raise(signal);
    std::abort(); // it was blocked
}

Interrupts::Interrupts() {
    struct sigaction action {};
    action.sa_handler = [](int) { came_ = 1; };
    action.sa_flags = static_cast<int>(SA_RESETHAND) | SA_RESTART;
    sigaction(SIGINT, &action, &before_);
}

Interrupts::~Interrupts() {
    sigaction(SIGINT, &before_, nullptr);
}

bool Interrupts::Came() const {
    return came_ != 0 || ReaderHasGone();
}

bool Interrupts::Sleep(std::chrono::milliseconds time) const {
    constexpr std::chrono::milliseconds kLook{50};
    const auto end = std::chrono::steady_clock::now() + time;
    for (auto now = end - time; now < end && !Came(); now = std::chrono::steady_clock::now()) {
        std::this_thread::sleep_for(std::min<std::chrono::nanoseconds>(end - now, kLook));
    }
    return !Came();
}

} // namespace ctl
