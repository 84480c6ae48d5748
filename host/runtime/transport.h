// What carries the bytes: connected stream sockets, and how they come about. Above it nothing knows of addresses.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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

    // As `toAll`, from now on. False with errno after a failure.
    bool OpenTo(bool all) const;

    int Fd() const { return fd_.Fd(); } // accepts stream sockets
    const std::filesystem::path &Path() const { return path_; }

private:
    bool IsAt(const struct stat &status) const { return status.st_dev == device_ && status.st_ino == inode_; }

    const std::filesystem::path path_;
    Descriptor fd_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

// A connection, or why there is none.
struct Connected {
    Descriptor socket;
    Descriptor process; // of an agent: the one that holds its socket
    int error = 0;      // errno value
    std::string reason; // in words, where the value does not say it
};

// Unix-domain sockets in a run directory.
class Transport {
public:
    using Clock = std::chrono::steady_clock;

    explicit Transport(Directory directory) : directory_(std::move(directory)) {}

    // For messages: where the service is looked for.
    std::string Address(std::string_view service, uint32_t pid) const;
    bool Knows(std::string_view service, uint32_t pid) const;
    // To a server that is who it should be, as the kernel names it: for a service a user who is trusted, for an agent
    // the process. EPERM for one that is not.
    Connected Connect(std::string_view service, uint32_t pid, Clock::time_point deadline) const;
    std::unique_ptr<Listener> Listen(std::string_view service, bool toAll) const;

    // The processes that hold the sockets of agents, by rising number; of one that can't be asked, what its name says.
    std::vector<uint32_t> Agents() const;

    // Removes the sockets that agents left on which nobody listens, where the directory is this user's. Throws what
    // RunDirectory and its lock throw.
    void RemoveDeadAgents() const;

private:
    Connected ConnectToAgent(uint32_t pid, Clock::time_point deadline) const;
    std::string WhyNotTrusted(uid_t holder) const;

    const Directory directory_;
};

} // namespace host
