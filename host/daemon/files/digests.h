// SHA-256 digests of files, read at a pace that leaves the disk to others.
#pragma once

#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>

#include "host/store/files.h"

namespace tarnd {

// Remembers the digest of a file while its size and times stay the same. For one thread.
class Digests {
public:
    // Asked after each block; throws to give up.
    using Check = std::function<void()>;

    // A limit of 0 bytes per second is none.
    explicit Digests(uint64_t bytesPerSecond) : bytesPerSecond_(bytesPerSecond) {}

    // In hexadecimal digits.
    std::string Of(const host::Descriptor &file, const Check &check);

    // Forgets the files that were not asked for since the last call.
    void ForgetUnused();

    uint64_t BytesRead() const { return bytesRead_; }

private:
    using Clock = std::chrono::steady_clock;
    struct Known {
        off_t size;
        timespec modified;
        timespec changed;
        std::string digest;
        bool used;
    };

    std::string Read(const host::Descriptor &file, const Check &check);
    void Pace();

    const uint64_t bytesPerSecond_;
    std::map<std::pair<dev_t, ino_t>, Known> known_;
    uint64_t bytesRead_ = 0;
    Clock::time_point windowStart_{};
    uint64_t windowBytes_ = 0;
};

} // namespace tarnd
