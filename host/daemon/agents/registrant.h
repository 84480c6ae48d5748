// The process that a request of an agent is about.
#pragma once

#include <cstdint>
#include <map>

#include "host/procfs/procfs.h"

namespace tarnd {

struct Registrant {
    uint32_t pid;   // in the daemon's numbers
    uint64_t start; // tells apart two processes that had the same id
    uint32_t user;  // who is charged with what is kept of it

    bool operator==(const Registrant &) const = default;
};

// The process that calls, as the kernel names it. It may name itself by the number that it has in a namespace of its
// own. Root and the daemon's user may name another. Throws EPERM for others that do, ESRCH without such a process.
Registrant RegistrantOf(const host::procfs::Procfs &proc, uint32_t named, void *replyCtx);

// What processes may have the daemon keep of them: so many entries in all and of one user, and the last ones are root's
// and the daemon's user's.
constexpr size_t kMostRegistrants = 1024, kMostRegistrantsOfUser = 256, kRegistrantsReserved = 128;

// Throws EBUSY, in words, where there is no room for one more of a user; `users` are those of the entries.
void RequireRoom(const std::vector<uint32_t> &users, uint32_t user);

// The same for a table of entries that have a `process`, by id.
template <class Entry>
void RequireRoom(const std::map<uint32_t, Entry> &entries, const Registrant &process) {
    if (entries.count(process.pid) != 0) {
        return;
    }
    std::vector<uint32_t> users;
    for (const auto &[pid, entry] : entries) {
        users.push_back(entry.process.user);
    }
    RequireRoom(users, process.user);
}

} // namespace tarnd
