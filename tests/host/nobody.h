// Takes nobody's rights for a while, where the tests run as root.
#pragma once

#include <unistd.h>

#include <gtest/gtest.h>

namespace kit {

class Nobody {
public:
    Nobody() { EXPECT_TRUE(geteuid() != 0 || seteuid(kId) == 0); }
    ~Nobody() { EXPECT_TRUE(getuid() != 0 || seteuid(0) == 0); }
    Nobody(const Nobody &) = delete;
    Nobody &operator=(const Nobody &) = delete;
    static constexpr uid_t kId = 65534;
};

} // namespace kit
