#include "host/agent/signals_blocked.h"

#include "host/agent/faults.h"

namespace agent {

SignalsBlocked::SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    for (const int fault : kFaultSignals) {
        sigdelset(&all, fault);
    }
    pthread_sigmask(SIG_SETMASK, &all, &before_);
}

SignalsBlocked::~SignalsBlocked() {
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

} // namespace agent
