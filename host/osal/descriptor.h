// The one owner of an open file, directory or socket.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "host/osal/error.h"

namespace host {

class Descriptor {
public:
    Descriptor() = default; // none
    explicit Descriptor(int fd) : fd_(fd) {}

    // Takes what open returned, and throws errno for -1; for a link that it may not follow, EACCES.
    Descriptor(int fd, const std::string &what) : fd_(fd) {
        if (fd < 0) {
            Fail(errno == ELOOP ? EACCES : errno, errno == ELOOP ? what + " is a link" : what);
        }
    }
    Descriptor(Descriptor &&other) noexcept : fd_(other.Release()) {}
    Descriptor &operator=(Descriptor &&other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }

    int Fd() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

    // The caller owns it from now on.
    int Release() { return std::exchange(fd_, -1); }

    struct stat Status() const {
        struct stat status {};
        if (fstat(fd_, &status) != 0) {
            Fail(errno, "fstat");
        }
        return status;
    }

private:
    int fd_ = -1;
};

} // namespace host
