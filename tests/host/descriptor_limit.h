// How many descriptors the process may have, while this lives: up to that number, exclusive.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "host/osal/descriptor.h"

namespace kit {

class DescriptorLimit {
public:
    explicit DescriptorLimit(rlim_t most) {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
        const rlimit limit{most, before_.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    ~DescriptorLimit() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before_), 0); }
    DescriptorLimit(const DescriptorLimit &) = delete;
    DescriptorLimit &operator=(const DescriptorLimit &) = delete;

private:
    rlimit before_{};
};

// The limit at which one more can be opened, where those below are in use.
inline rlim_t OneMoreDescriptor() {
    const host::Descriptor next(open("/dev/null", O_RDONLY | O_CLOEXEC));
    return static_cast<rlim_t>(next.Fd()) + 1;
}

} // namespace kit
