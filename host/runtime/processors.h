// On which processors a user's work is done.
#pragma once

#include <sched.h>

#include "host/runtime/quota.h"

namespace host {

// However much others ask for, a processor is free for what privileged users do, and for their programs: while this
// lives, the thread that made it runs where the user's work may. Where there is but one processor, that is it.
class OnProcessorsOf {
public:
    explicit OnProcessorsOf(const User &user);
    ~OnProcessorsOf();
    OnProcessorsOf(const OnProcessorsOf &) = delete;
    OnProcessorsOf &operator=(const OnProcessorsOf &) = delete;

private:
    cpu_set_t before_; // asked for each time: an administrator may have changed it
    bool confined_;
};

} // namespace host
