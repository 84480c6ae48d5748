#include "host/runtime/acceptor.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "host/osal/log.h"

namespace host {
namespace {

constexpr std::chrono::milliseconds kRetry(50);
constexpr size_t kAtOnce = 64; // then it is another event's turn

// Reported to one thread, and not again before it has asked for that: no others wait for it.
constexpr uint32_t kEvents = EPOLLIN | EPOLLONESHOT;

bool IsShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

Descriptor OpenSpare() {
    return Descriptor(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

} // namespace

Acceptor::Acceptor(Loop &loop, std::unique_ptr<Listener> listener, Admit admit, Refuse refuse)
    : loop_(loop), path_(listener->Path()), admit_(std::move(admit)), refuse_(std::move(refuse)), spare_(OpenSpare()),
      listener_(std::move(listener)) {}

void Acceptor::Open() {
    const MutexLock lock(mutex_);
    if (!loop_.Add(listener_->Fd(), kEvents, weak_from_this(), id_)) {
        Fail(errno, path_.string());
    }
}

void Acceptor::OpenTo(bool all) {
    const MutexLock lock(mutex_);
    if (listener_ != nullptr && !listener_->OpenTo(all)) {
        Log().warn("{}: its mode stays as it was: {}", path_.string(), strerror(errno));
    }
}

void Acceptor::Close() {
    const MutexLock lock(mutex_);
    loop_.Remove(listener_->Fd(), id_);
    listener_.reset();
}

void Acceptor::OnReady(uint32_t) {
    const MutexLock lock(mutex_);
    if (listener_ == nullptr) {
        return;
    }
    if (AcceptSome()) {
        loop_.Change(listener_->Fd(), kEvents, id_);
    } else {
        loop_.At(loop_.Now() + kRetry, [self = shared_from_this()] { self->OnReady(0); });
    }
}

Descriptor Acceptor::Accept() const {
    return Descriptor(accept4(listener_->Fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
}

// False when the system has no room for another connection at the moment.
bool Acceptor::AcceptSome() {
    if (!spare_) {
        spare_ = OpenSpare();
    }
    for (size_t i = 0; i < kAtOnce; ++i) {
        try {
            Descriptor fd = Accept();
            if (fd) {
                admit_(std::move(fd));
            } else if (IsShortage(errno)) {
                if (const int error = RefuseOne(errno); error != 0) {
                    return error == EAGAIN;
                }
            } else if (errno != EINTR && errno != ECONNABORTED) {
                return true;
            }
        } catch (const std::bad_alloc &) {
            return false; // that connection is closed
        }
    }
    return true;
}

// One that waits would not be reported again. 0, or why it can't be taken; EAGAIN when none waits.
int Acceptor::RefuseOne(int shortage) {
    spare_ = Descriptor();
    Descriptor fd = Accept();
    const int error = fd ? 0 : errno;
    if (error != EAGAIN) {
        refuse_(fd, fmt::format("{}: accept: {}", path_.string(), strerror(shortage)));
    }
    fd = Descriptor();
    spare_ = OpenSpare();
    return error;
}

} // namespace host
