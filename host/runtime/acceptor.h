// Takes the connections of a listening socket, in a loop.
#pragma once

#include <functional>
#include <string>

#include "host/osal/mutex.h"
#include "host/runtime/loop.h"
#include "host/runtime/transport.h"

namespace host {

class Acceptor final : public Pollable, public std::enable_shared_from_this<Acceptor> {
public:
    using Admit = std::function<void(Descriptor)>;
    // The system has no room for another connection at the moment: in words, where and why. The one that is refused, to
    // be told, where it could be taken.
    using Refuse = std::function<void(const Descriptor &, const std::string &)>;

    Acceptor(Loop &loop, std::unique_ptr<Listener> listener, Admit admit, Refuse refuse);

    const std::filesystem::path &Path() const { return path_; }

    // Throws std::system_error.
    void Open() TARN_EXCLUDES(mutex_);

    // Whether every user may connect.
    void OpenTo(bool all) TARN_EXCLUDES(mutex_);

    // Closes the socket, and calls nothing any more. Waits for a call under way.
    void Close() TARN_EXCLUDES(mutex_);

private:
    void OnReady(uint32_t events) override TARN_EXCLUDES(mutex_);
    bool AcceptSome() TARN_REQUIRES(mutex_);
    Descriptor Accept() const TARN_REQUIRES(mutex_);
    int RefuseOne(int shortage) TARN_REQUIRES(mutex_);

    Loop &loop_;
    const std::filesystem::path path_;
    const Admit admit_;
    const Refuse refuse_;
    Mutex mutex_;
    Descriptor spare_ TARN_GUARDED_BY(mutex_); // given up to refuse a connection when there is no other
    std::unique_ptr<Listener> listener_ TARN_GUARDED_BY(mutex_); // null when closed
    uint64_t id_ TARN_GUARDED_BY(mutex_) = 0;                    // in the loop
};

} // namespace host
