// What the process has mapped. Nothing here allocates or locks: it may run in a signal handler.
#pragma once

#include <cstdint>
#include <string_view>

#include "host/agent/lines.h"

namespace agent {

struct OwnMapping {
    uint64_t start = 0, end = 0;
    bool isExecutable = false;
    uint64_t fileOffset = 0;
    std::string_view path; // valid until the next one; empty where it is no file

    bool Has(uint64_t address) const { return address >= start && address < end; }
};

class OwnMaps {
public:
    bool Next(OwnMapping &mapping); // false at the end

private:
    Lines lines_{"/proc/self/maps"};
};

} // namespace agent
