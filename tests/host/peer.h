// A connection of which a test sends the bytes. A test file includes host/answer/unit.h, says TARN_UNIT() and includes
// tarn_sysdiag/types/tarnd.h before this one.
#pragma once

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <span>
#include <vector>

#include "host/runtime/protocol.h"
#include "host/runtime/transport.h"
#include "kit.h"

namespace peer {

class RawPeer {
public:
    explicit RawPeer(const std::filesystem::path &path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.string().copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(connect(fd_.Fd(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    }
    explicit RawPeer(int fd) : fd_(fd) {}

    int Fd() const { return fd_.Fd(); }

    void Send(std::span<const uint8_t> bytes) const {
        EXPECT_EQ(send(fd_.Fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }

    // The peer may have closed.
    void TrySend(std::span<const uint8_t> bytes) const { send(fd_.Fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL); }

    // Whether the other side has taken all that was sent.
    bool HasBeenRead() const {
        int unread = -1;
        EXPECT_EQ(ioctl(fd_.Fd(), SIOCOUTQ, &unread), 0);
        return unread == 0;
    }

    // Whether the other side has closed, and nothing is left to be read.
    bool HasEnded() const {
        uint8_t next;
        return recv(fd_.Fd(), &next, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
    }

    // The frames that arrive until the other side closes, or until there are so many.
    std::vector<host::Frame> Read(size_t most = SIZE_MAX) const {
        host::FrameParser parser(16 << 20);
        std::vector<host::Frame> frames;
        uint8_t buffer[4096];
        while (frames.size() < most) {
            pollfd waiting{fd_.Fd(), POLLIN, 0};
            if (poll(&waiting, 1, 20000) != 1) {
                ADD_FAILURE() << "nothing came";
                break;
            }
            const ssize_t count = read(fd_.Fd(), buffer, sizeof buffer);
            if (count <= 0) {
                break;
            }
            std::span<const uint8_t> bytes(buffer, static_cast<size_t>(count));
            while (!bytes.empty() && parser.ErrCode() == 0) {
                bytes = bytes.subspan(parser.Feed(bytes));
                if (parser.HasFrame()) {
                    frames.push_back(parser.Take());
                }
            }
        }
        return frames;
    }

private:
    host::Descriptor fd_;
};

// A request of PidIsOnline for the process of the same number as the call.
inline std::vector<uint8_t> OnlineRequest(uint64_t id, uint32_t deadlineMs = 10000) {
    host::FrameHeader header;
    header.id = id;
    header.typeHash = velto::kTypeHash<Tarn_sys_diag_PidIsOnlineInput>;
    header.deadlineMs = deadlineMs;
    strcpy(header.service, "TarnSysdiagTarnd");
    strcpy(header.method, "PidIsOnline");
    return host::MakeFrame(header, kit::Encode<Unit>(Tarn_sys_diag_PidIsOnlineInput{static_cast<uint32_t>(id)}));
}

} // namespace peer
