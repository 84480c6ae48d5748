// Signals are the application's: the agent's threads take none but those of their own faults.
#pragma once

#include <csignal>

namespace agent {

// Threads started by this one while this lives inherit that.
class SignalsBlocked {
public:
    SignalsBlocked();
    ~SignalsBlocked();
    SignalsBlocked(const SignalsBlocked &) = delete;
    SignalsBlocked &operator=(const SignalsBlocked &) = delete;

private:
    sigset_t before_;
};

} // namespace agent
