// The floor: blocking reads and writes on a Unix-domain socket, a thread for each connection. A request is as large as
// the runtime's smallest, and says nothing.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bench/roundtrip.h"

namespace bench {
namespace {

using Request = std::array<char, 148>;

struct Head {
    size_t size;
};

sockaddr_un AddressOf(const std::string &directory) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (directory + "/raw").copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

void ReadAll(int fd, void *to, size_t size) {
    for (size_t have = 0; have < size;) {
        const ssize_t count = recv(fd, static_cast<char *>(to) + have, size - have, 0);
        if (count <= 0) {
            throw std::runtime_error("raw: the peer has gone");
        }
        have += static_cast<size_t>(count);
    }
}

void WriteAll(int fd, const void *from, size_t size) {
    for (size_t sent = 0; sent < size;) {
        const ssize_t count = send(fd, static_cast<const char *>(from) + sent, size - sent, MSG_NOSIGNAL);
        if (count <= 0) {
            throw std::runtime_error("raw: the peer has gone");
        }
        sent += static_cast<size_t>(count);
    }
}

void Answer(int fd, size_t size) {
    std::vector<char> reply(sizeof(Head) + size, 'x');
    const Head head{size};
    memcpy(reply.data(), &head, sizeof head);
    try {
        for (Request request;;) {
            ReadAll(fd, request.data(), request.size());
            WriteAll(fd, reply.data(), reply.size());
        }
    } catch (const std::runtime_error &) {
        close(fd);
    }
}

class RawCaller final : public Caller {
public:
    explicit RawCaller(const std::string &directory) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = AddressOf(directory);
        if (connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
            throw std::runtime_error("raw: not connected");
        }
    }
    ~RawCaller() override { close(fd_); }

    size_t Call() override {
        WriteAll(fd_, request_.data(), request_.size());
        // The head comes with the first bytes, so one read takes a small reply.
        reply_.resize(std::max(reply_.size(), sizeof(Head)));
        const ssize_t count = recv(fd_, reply_.data(), reply_.size(), 0);
        if (count < static_cast<ssize_t>(sizeof(Head))) {
            throw std::runtime_error("raw: the peer has gone");
        }
        Head head;
        memcpy(&head, reply_.data(), sizeof head);
        reply_.resize(sizeof head + head.size);
        ReadAll(fd_, reply_.data() + count, reply_.size() - static_cast<size_t>(count));
        return head.size;
    }

private:
    int fd_;
    Request request_{};
    std::vector<char> reply_;
};

class Raw final : public System {
public:
    const char *Name() const override { return "raw"; }

    void Serve(const std::string &directory, size_t size) const override {
        const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_un address = AddressOf(directory);
        if (bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
            listen(listener, 16) != 0) {
            throw std::runtime_error("raw: can't listen");
        }
        while (true) {
            std::thread(Answer, accept(listener, nullptr, nullptr), size).detach();
        }
    }

    std::unique_ptr<Caller> Connect(const std::string &directory, int) const override {
        return std::make_unique<RawCaller>(directory);
    }
};

} // namespace

const System &RawSystem() {
    static const Raw system;
    return system;
}

} // namespace bench
