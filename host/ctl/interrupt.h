// Ctrl-C, and a reader that has gone, for what has to be ended properly.
#pragma once

#include <chrono>
#include <csignal>
#include <stdexcept>

namespace ctl {

// Nobody is there any more to read standard output.
bool ReaderHasGone();

// Ends the program as the signal would have, had nobody taken it.
[[noreturn]] void EndBy(int signal);

// While it lives, the first SIGINT is noted only; the next one ends the program. That nobody is there any more to read
// standard output, as where a connection by ssh broke, is the same.
class Interrupts {
public:
    Interrupts();
    ~Interrupts();
    Interrupts(const Interrupts &) = delete;
    Interrupts &operator=(const Interrupts &) = delete;

    bool Came() const;

    // False as soon as one came.
    bool Sleep(std::chrono::milliseconds time) const;

private:
    static inline volatile std::sig_atomic_t came_ = 0;
    struct sigaction before_ {};
};

// What was done is given up. The program cleans up, and ends as the signal would have ended it.
class Interrupted : public std::runtime_error {
public:
    using runtime_error::runtime_error;
};

} // namespace ctl
