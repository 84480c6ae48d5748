// The platform that the codecs find in a test's process: it records what they ask for, and refuses what a test tells it
// to refuse. One executable gives it as the OS-abstraction layer's functions, another as malloc and free.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

struct LogRecord {
    std::string function;
    uint32_t code;
    std::string format;
    nlohmann::json args;

    bool operator==(const LogRecord &) const = default;
};

struct MemRequest {
    std::string tag; // empty where the platform has none
    uint32_t size;

    bool operator==(const MemRequest &) const = default;
};

// Whether allocations and releases carry tags, and releases of null can be seen.
extern const bool kHasTags;
// Whether it has a copy for large blocks.
extern const bool kHasOptimisedCopy;

struct Trace {
    std::vector<LogRecord> log;
    std::vector<MemRequest> allocations;
    std::vector<std::string> releases;                  // tags
    std::map<void *, uint32_t> live;                    // blocks and their sizes
    std::vector<std::string> misuse;                    // what no codec may do, whatever the message
    size_t failAt = std::numeric_limits<size_t>::max(); // index of the allocation to refuse
    bool keepsLog = true;                               // off where millions of refusals are expected
    size_t copiesChecked = 0;                           // calls of memcpy_s
    size_t copiesOptimised = 0;                         // calls of memcpy_sOptAsm

    // Forgets everything but live blocks.
    void Clear();
    void *Alloc(uint32_t size, const char *tag);
    void Free(void *block, const char *tag);
};

Trace &PlatformTrace();
