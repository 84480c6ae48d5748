// What carries the bytes: connected stream sockets, and how they come about. Above it nothing knows of addresses.
#pragma once

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "host/runtime/directory.h"

namespace host {

class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(other.Release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~UniqueFd() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    int Get() const { return fd_; }
    int Release() { return std::exchange(fd_, -1); }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_;
};

// A listening socket of a service; gone from where clients look for it when destroyed.
class Listener {
public:
    virtual ~Listener() = default;
    virtual int Fd() const = 0; // accepts stream sockets
    virtual std::filesystem::path Path() const = 0;
};

class Transport {
public:
    using Clock = std::chrono::steady_clock;

    virtual ~Transport() = default;

    // For messages: where the service is looked for.
    virtual std::string Address(std::string_view service, uint32_t pid) const = 0;
    virtual bool Knows(std::string_view service, uint32_t pid) const = 0;
    // An invalid descriptor and the errno value after a failure.
    virtual UniqueFd Connect(std::string_view service, uint32_t pid, Clock::time_point deadline, int &error) const = 0;
    // Throws std::runtime_error and std::system_error.
    // `toAll` lets every user of the system connect, not only this one.
    virtual std::unique_ptr<Listener> Listen(std::string_view service, bool toAll) const = 0;
};

// Unix-domain sockets in a run directory.
class UnixTransport final : public Transport {
public:
    explicit UnixTransport(Directory directory) : directory_(std::move(directory)) {}

    std::string Address(std::string_view service, uint32_t pid) const override;
    bool Knows(std::string_view service, uint32_t pid) const override;
    UniqueFd Connect(std::string_view service, uint32_t pid, Clock::time_point deadline, int &error) const override;
    std::unique_ptr<Listener> Listen(std::string_view service, bool toAll) const override;

private:
    const Directory directory_;
};

} // namespace host
