// The rights of the user whose process crashed.
#pragma once

#include <unistd.h>

#include "host/osal/error.h"

namespace core {

// Acts by the rights of another user while it lives, where this is root.
class Acting {
public:
    Acting(uid_t user, gid_t group) : group_(getegid()), user_(geteuid()) {
        if (user_ == 0 && (setegid(group) != 0 || seteuid(user) != 0)) {
            host::Fail(errno, fmt::format("to act as user {}", user));
        }
    }
    ~Acting() {
        if (user_ == 0 && (seteuid(user_) != 0 || setegid(group_) != 0)) {
            _exit(1); // it would go on with the wrong rights
        }
    }
    Acting(const Acting &) = delete;
    Acting &operator=(const Acting &) = delete;

private:
    const gid_t group_;
    const uid_t user_;
};

} // namespace core
