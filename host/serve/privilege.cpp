#include "host/serve/privilege.h"

#include <cap-ng.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <grp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "host/osal/accounts.h"
#include "host/osal/descriptor.h"
#include "host/osal/directories.h"
#include "host/osal/log.h"
#include "host/runtime/run_directory.h"

namespace host {

namespace {

constexpr auto kOwnSets = static_cast<capng_type_t>(CAPNG_EFFECTIVE | CAPNG_PERMITTED);

struct Account {
    uid_t user;
    gid_t group;
};

void Check(int result, const std::string &what) {
    if (result != 0) {
        throw std::runtime_error(fmt::format("{}: {}", what, strerrordesc_np(errno)));
    }
}

// In a directory that was root's alone nobody else has put a file.
void GiveFiles(const std::filesystem::path &directory, const Account &to) {
    for (const auto &entry : std::filesystem::directory_iterator(directory)) {
        struct stat status {};
        const char *const file = entry.path().c_str();
        if (lstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1 && status.st_uid == 0) {
            Check(lchown(file, to.user, to.group), file);
        }
    }
}

// Whether it was missing.
bool Make(const NeededDirectory &needed, const Account &user) {
    std::error_code error;
    const bool isNew = !std::filesystem::exists(needed.path, error);
    error = MakeDirectories(needed.path, needed.mode);
    if (!error && !std::filesystem::is_directory(needed.path, error) && !error) {
        error = std::make_error_code(std::errc::not_a_directory);
    }
    if (error) {
        throw std::runtime_error(fmt::format("{} {}: {}; make it for user {}, or name another with {}", needed.what,
                                             needed.path.string(), error.message(), user.user, needed.naming));
    }
    return isNew;
}

void Give(const NeededDirectory &needed, bool isNew, const Account &to) {
    using Given = NeededDirectory::Given;
    const Descriptor directory(open(needed.path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), needed.path.string());
    const struct stat status = directory.Status();
    const bool rootsAlone = status.st_uid == 0 && (status.st_mode & 022) == 0;
    if (!rootsAlone || (!isNew && needed.given == Given::kNothing)) {
        return;
    }
    if (needed.given == Given::kDirectoryAndFiles) {
        GiveFiles(needed.path, to);
    }
    Check(fchown(directory.Fd(), to.user, to.group), needed.path.string());
}

// Chooses those of the capabilities that the process has; the names of the others.
std::vector<std::string> Choose(const std::vector<unsigned> &capabilities) {
    std::vector<unsigned> kept;
    std::vector<std::string> lacking;
    for (const unsigned capability : capabilities) {
        if (capng_have_capability(CAPNG_PERMITTED, capability) != 0) {
            kept.push_back(capability);
        } else {
            lacking.emplace_back(capng_capability_to_name(capability));
        }
    }
    capng_clear(CAPNG_SELECT_ALL);
    for (const unsigned capability : kept) {
        capng_update(CAPNG_ADD, static_cast<capng_type_t>(kOwnSets | CAPNG_BOUNDING_SET), capability);
    }
    return lacking;
}

// How many capabilities a program could still get that were not chosen.
size_t Unbounded() {
    size_t number = 0;
    for (unsigned capability = 0; capng_capability_to_name(capability) != nullptr; ++capability) {
        number += prctl(PR_CAPBSET_READ, capability, 0, 0, 0) == 1 &&
                  capng_have_capability(CAPNG_BOUNDING_SET, capability) == 0;
    }
    return number;
}

// The bounding set takes CAP_SETPCAP, which a container may lack; without it, no new privileges are to be had all the
// same.
void BoundPrograms() {
    Check(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), "no new privileges");
    Check(prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0), "ambient capabilities");
    capng_apply(CAPNG_SELECT_BOUNDS);
    if (const size_t left = Unbounded(); left != 0 && geteuid() == 0) {
        Log().warn("{} capabilities stay in the bounding set: to remove them takes CAP_SETPCAP", left);
    }
}

void ChangeUser(const Account &to) {
    errno = 0;
    if (const int error = capng_change_id(static_cast<int>(to.user), static_cast<int>(to.group), CAPNG_DROP_SUPP_GRP);
        error != 0) {
        throw std::runtime_error(fmt::format("can't become user {}: {} (step {}); expected root, or a program that is "
                                             "started as that user",
                                             to.user, strerrordesc_np(errno), -error));
    }
}

void KeepChosen(uid_t user) {
    if (user == 0) {
        Check(setgroups(0, nullptr), "further groups");
    }
    Check(capng_apply(CAPNG_SELECT_CAPS), "capabilities");
}

std::string Text(const std::vector<std::string> &names) {
    return names.empty() ? "none" : fmt::format("{}", fmt::join(names, ", "));
}

std::vector<std::string> Kept() {
    std::vector<std::string> names;
    for (unsigned capability = 0; const char *name = capng_capability_to_name(capability); ++capability) {
        if (capng_have_capability(CAPNG_EFFECTIVE, capability) != 0) {
            names.emplace_back(name);
        }
    }
    return names;
}

} // namespace

uid_t UserToBecome(const std::optional<std::string> &named) {
    const uid_t own = geteuid();
    if (!named) {
        return own == 0 ? DaemonUser().value_or(0) : own;
    }
    const std::optional<uid_t> user = named->empty() ? std::optional<uid_t>(0) : UserIdOf(*named);
    if (!user) {
        throw std::invalid_argument(fmt::format("--user: no user \"{}\", expected a user's name or number", *named));
    }
    if (own != 0 && *user != own) {
        throw std::invalid_argument(fmt::format("--user: user {} can't become user {}, only root can", own, *user));
    }
    return *user;
}

void Become(uid_t user, const std::vector<NeededDirectory> &directories, const std::vector<unsigned> &capabilities) {
    const bool changes = user != geteuid();
    const Account to{user, PrimaryGroupOf(user).value_or(user)};
    for (const NeededDirectory &directory : directories) {
        if (const bool isNew = Make(directory, to); changes) {
            Give(directory, isNew, to);
        }
    }
    Check(capng_get_caps_process(), "the capabilities of this process");
    const std::vector<std::string> lacking = Choose(capabilities);
    BoundPrograms();
    if (changes) {
        ChangeUser(to);
    } else {
        KeepChosen(user);
    }
    if (const std::vector<std::string> kept = Kept(); user == 0 || changes || !kept.empty()) {
        // Otherwise other processes of the user could have by ptrace what this one has.
        Check(prctl(PR_SET_DUMPABLE, 0, 0, 0, 0), "not dumpable");
        Log().info("runs as user {}, capabilities kept: {}; lacking: {}", user, Text(kept), Text(lacking));
    }
}

} // namespace host
