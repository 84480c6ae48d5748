// What carries the bytes: connected stream sockets, and how they come about. Above it nothing knows of addresses.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "host/osal/descriptor.h"
#include "host/runtime/directory.h"

namespace host {

// A listening socket of a service; gone from where clients look for it when destroyed.
class Listener {
public:
    // `toAll` lets every user of the system connect, not only this one. Throws std::runtime_error and
    // std::system_error.
    Listener(std::filesystem::path path, bool toAll);
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;
    ~Listener();

    int Fd() const { return fd_.Fd(); } // accepts stream sockets
    const std::filesystem::path &Path() const { return path_; }

private:
    const std::filesystem::path path_;
    Descriptor fd_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

// Unix-domain sockets in a run directory.
class Transport {
public:
    using Clock = std::chrono::steady_clock;

    explicit Transport(Directory directory) : directory_(std::move(directory)) {}

    // For messages: where the service is looked for.
    std::string Address(std::string_view service, uint32_t pid) const;
    bool Knows(std::string_view service, uint32_t pid) const;
    // An invalid descriptor and the errno value after a failure.
    Descriptor Connect(std::string_view service, uint32_t pid, Clock::time_point deadline, int &error) const;
    std::unique_ptr<Listener> Listen(std::string_view service, bool toAll) const;

private:
    const Directory directory_;
};

} // namespace host
