#include "host/daemon/files/digests.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "host/osal/error.h"
#include "host/store/sha256.h"

namespace tarnd {

namespace {

constexpr size_t kBlock = 256 * 1024;

bool Same(const timespec &a, const timespec &b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

} // namespace

// A file's times move in steps: one that was written moments ago may be written again without showing it.
bool Digests::IsSettled(const struct stat &status) const {
    const time_t now = std::chrono::system_clock::to_time_t(clocks_.WallNow());
    return now > status.st_ctim.tv_sec + 1 && now > status.st_mtim.tv_sec + 1;
}

std::string Digests::Of(const host::Descriptor &file, const struct stat &status, const host::Check &check) {
    const std::pair key(status.st_dev, status.st_ino);
    const auto known = known_.find(key);
    if (known != known_.end() && known->second.size == status.st_size && Same(known->second.modified, status.st_mtim) &&
        Same(known->second.changed, status.st_ctim)) {
        known->second.used = true;
        return known->second.digest;
    }
    const bool settled = IsSettled(status);
    std::string digest = Read(file, static_cast<uint64_t>(status.st_size), check);
    if (settled) {
        known_[key] = {status.st_size, status.st_mtim, status.st_ctim, digest, true};
    }
    return digest;
}

void Digests::ForgetUnused() {
    std::erase_if(known_, [](const auto &entry) { return !entry.second.used; });
    for (auto &[key, known] : known_) {
        known.used = false;
    }
}

std::string Digests::Read(const host::Descriptor &file, uint64_t size, const host::Check &check) {
    host::Sha256 sha;
    std::vector<char> block(kBlock);
    for (uint64_t at = 0; at != size;) {
        check();
        const auto wanted = static_cast<size_t>(std::min<uint64_t>(block.size(), size - at));
        const ssize_t length = pread(file.Fd(), block.data(), wanted, static_cast<off_t>(at));
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length < 0) {
            host::Fail(errno, "reading a file for its digest");
        }
        if (length == 0) {
            break; // it was cut off
        }
        const auto bytes = static_cast<size_t>(length);
        sha.Add({block.data(), bytes});
        at += bytes;
        bytesRead_ += bytes;
        Pace(bytes);
    }
    return sha.Hex();
}

void Digests::Pace(uint64_t bytes) {
    if (bytesPerSecond_ == 0) {
        return;
    }
    const host::SteadyTime now = clocks_.SteadyNow();
    if (now - windowStart_ > std::chrono::seconds(1)) { // time that was not used is not saved up
        windowStart_ = now;
        windowBytes_ = 0;
    }
    windowBytes_ += bytes;
    const std::chrono::duration<double> due(static_cast<double>(windowBytes_) / static_cast<double>(bytesPerSecond_));
    wait_(windowStart_ + std::chrono::duration_cast<host::SteadyTime::duration>(due));
}

} // namespace tarnd
