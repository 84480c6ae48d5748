// A lock that processes take in turn, and that other users can't hold.
#pragma once

#include <chrono>
#include <filesystem>

#include "host/osal/descriptor.h"

namespace host {

class LockFile {
public:
    static constexpr const char *kName = ".lock";

    // Locks a file in a directory, which belongs to the directory's owner and only it can open; it is created when
    // missing. What is another user's is put out of the way, so the caller is the owner, or root. Throws
    // std::system_error: EBUSY, with the process that holds the lock, when that one does not release it in time.
    // `path` is the directory's, for messages.
    LockFile(const Descriptor &directory, const std::filesystem::path &path, std::chrono::milliseconds wait);
    ~LockFile();
    LockFile(const LockFile &) = delete;
    LockFile &operator=(const LockFile &) = delete;

private:
    Descriptor file_;
};

} // namespace host
