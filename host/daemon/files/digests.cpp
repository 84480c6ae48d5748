#include "host/daemon/files/digests.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <new>
#include <thread>
#include <vector>

#include <fmt/format.h>

namespace tarnd {

namespace {

constexpr size_t kBlock = 256 * 1024;

bool Same(const timespec &a, const timespec &b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// A file's times move in steps: one that was written moments ago may be written again without showing it.
bool IsSettled(const struct stat &status) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec > status.st_ctim.tv_sec + 1 && now.tv_sec > status.st_mtim.tv_sec + 1;
}

class Sha256 {
public:
    Sha256() : context_(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
        if (context_ == nullptr) {
            throw std::bad_alloc();
        }
        Check(EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr));
    }
    void Add(const char *bytes, size_t size) { Check(EVP_DigestUpdate(context_.get(), bytes, size)); }
    std::string Hex() {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned size = 0;
        Check(EVP_DigestFinal_ex(context_.get(), digest, &size));
        std::string hex;
        for (unsigned i = 0; i < size; ++i) {
            hex += fmt::format("{:02x}", digest[i]);
        }
        return hex;
    }

private:
    static void Check(int done) {
        if (done != 1) {
            host::Fail(EIO, "SHA-256");
        }
    }

    const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX *)> context_;
};

} // namespace

std::string Digests::Of(const host::Descriptor &file, const Check &check) {
    const struct stat status = file.Status();
    const std::pair key(status.st_dev, status.st_ino);
    const auto known = known_.find(key);
    if (known != known_.end() && known->second.size == status.st_size && Same(known->second.modified, status.st_mtim) &&
        Same(known->second.changed, status.st_ctim)) {
        known->second.used = true;
        return known->second.digest;
    }
    const bool settled = IsSettled(status);
    std::string digest = Read(file, check);
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

std::string Digests::Read(const host::Descriptor &file, const Check &check) {
    Sha256 sha;
    std::vector<char> block(kBlock);
    for (off_t at = 0;;) {
        check();
        const ssize_t length = pread(file.Fd(), block.data(), block.size(), at);
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length < 0) {
            host::Fail(errno, "reading a file for its digest");
        }
        if (length == 0) {
            return sha.Hex();
        }
        sha.Add(block.data(), static_cast<size_t>(length));
        at += length;
        bytesRead_ += static_cast<uint64_t>(length);
        windowBytes_ += static_cast<uint64_t>(length);
        Pace();
    }
}

void Digests::Pace() {
    if (bytesPerSecond_ == 0) {
        return;
    }
    const auto now = Clock::now();
    if (now - windowStart_ > std::chrono::seconds(1)) { // time that was not used is not saved up
        windowStart_ = now;
        windowBytes_ = 0;
    }
    const std::chrono::duration<double> due(static_cast<double>(windowBytes_) / static_cast<double>(bytesPerSecond_));
    std::this_thread::sleep_until(windowStart_ + std::chrono::duration_cast<Clock::duration>(due));
}

} // namespace tarnd
