// SHA-256 digests of files, read at a pace that leaves the disk to others.
#pragma once

#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>

#include "host/clock/clocks.h"
#include "host/osal/check.h"
#include "host/osal/descriptor.h"

namespace tarnd {

// Remembers the digest of a file while its size and times stay the same. For one thread.
class Digests {
public:
    // Waits until then, to keep the pace.
    using Wait = std::function<void(host::SteadyTime until)>;

    // A limit of 0 bytes per second is none.
    Digests(const host::Clocks &clocks, uint64_t bytesPerSecond, Wait wait)
        : clocks_(clocks), bytesPerSecond_(bytesPerSecond), wait_(std::move(wait)) {}

    // In hexadecimal digits, of as many bytes as the status says: a file may grow as fast as it is read. Checks before
    // each block.
    std::string Of(const host::Descriptor &file, const struct stat &status, const host::Check &check);

    // Forgets the files that were not asked for since the last call.
    void ForgetUnused();

    uint64_t BytesRead() const { return bytesRead_; }

private:
    struct Known {
        off_t size;
        timespec modified;
        timespec changed;
        std::string digest;
        bool used;
    };

    bool IsSettled(const struct stat &status) const;
    std::string Read(const host::Descriptor &file, uint64_t size, const host::Check &check);
    void Pace(uint64_t bytes);

    const host::Clocks &clocks_;
    const uint64_t bytesPerSecond_;
    const Wait wait_;
    std::map<std::pair<dev_t, ino_t>, Known> known_;
    uint64_t bytesRead_ = 0;
    host::SteadyTime windowStart_{};
    uint64_t windowBytes_ = 0;
};

} // namespace tarnd
