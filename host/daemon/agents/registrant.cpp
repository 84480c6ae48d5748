#include "host/daemon/agents/registrant.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "host/osal/error.h"
#include "tarn_sysdiag/host/reply.h"

namespace tarnd {

namespace {

bool IsItself(const host::procfs::Procfs &proc, uint32_t named, const TarnHost_Peer &peer) {
    bool itself = named == peer.uiPid && named != 0;
    if (!itself && peer.uiPid != 0) {
        host::procfs::SkipHidden([&] { itself = named == proc.OwnNumberOf(peer.uiPid); });
    }
    return itself;
}

bool IsPrivileged(uint32_t user) {
    return user == 0 || user == geteuid();
}

} // namespace

Registrant RegistrantOf(const host::procfs::Procfs &proc, uint32_t named, void *replyCtx) {
    TarnHost_Peer peer{};
    if (const uint32_t error = TarnHost_PeerOf(replyCtx, &peer); error != 0) {
        host::Fail(static_cast<int>(error), "the caller is not known");
    }
    const bool itself = IsItself(proc, named, peer);
    if (!itself && !IsPrivileged(peer.uiUid)) {
        host::Fail(EPERM, fmt::format("process {} of user {} can't act for process {}, only for itself", peer.uiPid,
                                      peer.uiUid, named));
    }
    const uint32_t pid = itself ? peer.uiPid : named;
    const Registrant process{pid, proc.ReadProcess(pid).startTicks, peer.uiUid};
    if (itself && TarnHost_PeerLives(replyCtx) == 0) { // so that what was read is of another
        host::Fail(ESRCH, fmt::format("process {}, which called, has ended", pid));
    }
    return process;
}

void RequireRoom(const std::vector<uint32_t> &users, uint32_t user) {
    const auto ofUser = static_cast<size_t>(std::ranges::count(users, user));
    if (users.size() >= kMostRegistrants) {
        host::Fail(EBUSY, fmt::format("there are {} already, expected at most so many", users.size()));
    }
    if (IsPrivileged(user)) {
        return;
    }
    if (ofUser >= kMostRegistrantsOfUser) {
        host::Fail(EBUSY, fmt::format("user {} has {} already, expected at most so many of a user", user, ofUser));
    }
    const auto others =
        static_cast<size_t>(std::ranges::count_if(users, [](uint32_t one) { return !IsPrivileged(one); }));
    if (others >= kMostRegistrants - kRegistrantsReserved) {
        host::Fail(EBUSY, fmt::format("there are {} already, and the rest is for root and the daemon's user", others));
    }
}

} // namespace tarnd
