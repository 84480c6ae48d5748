// The run directory for those who put sockets into it.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>

#include "host/osal/descriptor.h"
#include "host/osal/lock_file.h"

namespace host {

// The user that the daemon runs as: $TARN_USER, a name or number, else "tarn"; none where there is no such user.
std::optional<uid_t> DaemonUser();

// Held open, so that it stays the one that was checked: its owner is this user, root or the daemon's user, and nobody
// else can remove or replace what is in it. That is mode 0755 or less, or 1777 where the agents of many users run.
class RunDirectory {
public:
    // Creates what is missing, with mode 0755. Throws std::system_error and std::runtime_error, with what was expected.
    explicit RunDirectory(std::filesystem::path path);

    const std::filesystem::path &Path() const { return path_; }
    const Descriptor &Open() const { return open_; }
    uid_t Owner() const { return owner_; }
    bool IsOf(uid_t user) const { return user == 0 || user == owner_; }

    // Held while sockets come and go, so that no two servers both find the same one stale. A user to whom the directory
    // does not belong takes none: agents have names of their own in it.
    using Lock = std::optional<LockFile>;
    void Take(Lock &lock) const;

private:
    const std::filesystem::path path_;
    Descriptor open_;
    uid_t owner_ = 0;
};

} // namespace host
