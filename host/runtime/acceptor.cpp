#include "host/runtime/acceptor.h"

#include <fmt/format.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace host {
namespace {

constexpr std::chrono::milliseconds kRetry(50);

} // namespace

Acceptor::Acceptor(Loop &loop, std::unique_ptr<Listener> listener, Admit admit, Warn warn)
    : loop_(loop), path_(listener->Path()), admit_(std::move(admit)), warn_(std::move(warn)),
      listener_(std::move(listener)) {}

void Acceptor::Open() {
    const MutexLock lock(mutex_);
    if (!loop_.Add(listener_->Fd(), EPOLLIN, weak_from_this(), id_)) {
        Fail(errno, path_.string());
    }
}

void Acceptor::Close() {
    const MutexLock lock(mutex_);
    loop_.Remove(listener_->Fd(), id_);
    listener_.reset();
}

void Acceptor::OnReady(uint32_t) {
    const MutexLock lock(mutex_);
    if (listener_ != nullptr && !AcceptAll()) {
        loop_.At(loop_.Now() + kRetry, [self = shared_from_this()] { self->OnReady(0); });
    }
}

// False when the system has no room for another connection at the moment.
bool Acceptor::AcceptAll() {
    while (true) {
        Descriptor fd(accept4(listener_->Fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (fd) {
            admit_(std::move(fd));
        } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            warn_(fmt::format("{}: accept: {}", path_.string(), strerror(errno)));
            return false;
        } else if (errno != EINTR && errno != ECONNABORTED) {
            return true;
        }
    }
}

} // namespace host
