// A run directory on this machine whose services are a device's: whatever calls local services calls the device's
// there. Agents have no sockets in it; what the daemon passes on to them goes through.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/fleet/caller.h"
#include "host/osal/descriptor.h"
#include "host/osal/mutex.h"
#include "host/runtime/transport.h"

namespace fleet {

class Gateway {
public:
    // Throws std::system_error.
    Gateway(Caller &caller, std::string device);
    Gateway(const Gateway &) = delete;
    Gateway &operator=(const Gateway &) = delete;
    ~Gateway();

    const std::filesystem::path &RunDir() const { return directory_.path; }

private:
    class Session;

    // Nobody else's. It is removed when this is gone, by a process of its own, as a signal may end this one.
    class Directory {
    public:
        Directory();
        ~Directory();
        Directory(const Directory &) = delete;
        Directory &operator=(const Directory &) = delete;
        std::filesystem::path path;

    private:
        host::Descriptor lives_; // its end tells the keeper
        pid_t keeper_;
    };

    void Accept(const host::Listener &listener, const std::string &service) TARN_EXCLUDES(mutex_);

    Caller &caller_;
    const std::string device_;
    const Directory directory_;
    std::vector<std::unique_ptr<host::Listener>> listeners_;
    std::vector<std::thread> threads_; // of the listeners

    host::Mutex mutex_;
    std::list<std::pair<std::shared_ptr<Session>, std::thread>> sessions_ TARN_GUARDED_BY(mutex_);
};

} // namespace fleet
