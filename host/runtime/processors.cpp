#include "host/runtime/processors.h"

namespace host {
namespace {

// Always the same one, so that all leave it.
void RemoveLast(cpu_set_t &processors) {
    size_t last = CPU_SETSIZE - 1;
    while (!CPU_ISSET(last, &processors)) {
        --last;
    }
    CPU_CLR(last, &processors);
}

} // namespace

OnProcessorsOf::OnProcessorsOf(const User &user)
    : confined_(!user.isPrivileged && sched_getaffinity(0, sizeof before_, &before_) == 0 && CPU_COUNT(&before_) > 1) {
    if (confined_) {
        cpu_set_t rest = before_;
        RemoveLast(rest);
        confined_ = sched_setaffinity(0, sizeof rest, &rest) == 0;
    }
}

OnProcessorsOf::~OnProcessorsOf() {
    if (confined_) {
        sched_setaffinity(0, sizeof before_, &before_);
    }
}

} // namespace host
