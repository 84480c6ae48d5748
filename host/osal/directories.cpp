#include "host/osal/directories.h"

#include <fcntl.h>
#include <sys/random.h>

#include <cstdio>

namespace host {

namespace {

std::error_code LastError() {
    return {errno, std::generic_category()};
}

// What mkdir makes lacks what the umask has, so the mode comes after it.
std::error_code MakeDirectory(const std::filesystem::path &path, mode_t mode) {
    if (mkdir(path.c_str(), 0700) != 0) {
        return errno == EEXIST ? std::error_code() : LastError();
    }
    const Descriptor made(open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!made) {
        return LastError();
    }
    if (made.Status().st_uid != geteuid()) {
        return std::make_error_code(std::errc::operation_not_permitted); // swapped by another user
    }
    return ChangeMode(made, mode) ? std::error_code() : LastError();
}

} // namespace

bool ChangeMode(const Descriptor &file, mode_t mode) {
    return chmod(fmt::format("/proc/self/fd/{}", file.Fd()).c_str(), mode) == 0;
}

std::error_code MakeDirectories(const std::filesystem::path &path, mode_t mode) {
    if (!path.has_filename() && path.has_relative_path()) {
        return MakeDirectories(path.parent_path(), mode);
    }
    std::error_code unknown;
    if (path.empty() || std::filesystem::exists(path, unknown)) {
        return {};
    }
    const std::error_code error = MakeDirectories(path.parent_path(), 0755);
    return error ? error : MakeDirectory(path, mode);
}

std::string RandomDigits() {
    uint64_t random = 0;
    if (getrandom(&random, sizeof random, 0) != sizeof random) {
        Fail(errno, "random numbers");
    }
    return fmt::format("{:016x}", random);
}

std::string HiddenName() {
    return "." + RandomDigits();
}

// A directory with something in it can only be renamed.
bool Evict(const Descriptor &directory, const std::string &name) {
    return unlinkat(directory.Fd(), name.c_str(), 0) == 0 ||
           renameat(directory.Fd(), name.c_str(), directory.Fd(), HiddenName().c_str()) == 0;
}

} // namespace host
