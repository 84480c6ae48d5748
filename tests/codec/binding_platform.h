// The platform that a test of the binding is linked with, and what was called of it.
#pragma once

#include <atomic>

struct PlatformCalls {
    std::atomic<int> useFlag = 0, alloc = 0, free = 0, log = 0;
};
extern PlatformCalls platformCalls;

// What it has.
extern const bool kPlatformLog, kPlatformUseFlag;
// Whether its flag says that its memory is to be used, and whether it then has all functions for that.
extern const bool kPlatformMemoryWanted, kPlatformMemory;
