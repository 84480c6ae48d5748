#include "host/runtime/run_directory.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <cstdlib>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "host/osal/accounts.h"
#include "host/osal/directories.h"

namespace host {

namespace {

constexpr std::chrono::seconds kLockWait(5);

bool IsTrusted(uid_t owner) {
    return owner == geteuid() || owner == 0 || owner == DaemonUser();
}

} // namespace

std::optional<uid_t> DaemonUser() {
    const char *const named = secure_getenv("TARN_USER");
    return UserIdOf(named != nullptr && named[0] != 0 ? named : "tarn");
}

RunDirectory::RunDirectory(std::filesystem::path path) : path_(std::move(path)) {
    const std::string what = "run directory " + path_.string();
    if (const std::error_code error = MakeDirectories(path_, 0755); error) {
        throw std::system_error(error, what);
    }
    open_ = Descriptor(open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), what);
    const struct stat status = open_.Status();
    owner_ = status.st_uid;
    if (!IsTrusted(owner_)) {
        throw std::runtime_error(fmt::format("{} belongs to user {}, expected root, user {} or the daemon's (chown)",
                                             what, owner_, geteuid()));
    }
    if ((status.st_mode & 022) != 0 && (status.st_mode & S_ISVTX) == 0) {
        throw std::runtime_error(
            fmt::format("{} has mode {:o}, expected 0755, or 1777 where the agents of many users run (chmod)", what,
                        status.st_mode & 07777));
    }
}

void RunDirectory::Take(Lock &lock) const {
    if (IsOf(geteuid())) {
        lock.emplace(open_, path_, kLockWait);
    }
}

} // namespace host
