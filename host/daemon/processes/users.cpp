#include "host/daemon/processes/users.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <vector>

namespace tarnd {

namespace {

// `find` is getpwuid_r or getgrgid_r, whose buffer grows until the entry fits.
template <class Entry, class Find>
std::string NameOf(uint32_t id, char *Entry::*name, Find find) {
    std::vector<char> buffer(1024);
    for (;;) {
        Entry entry{};
        Entry *found = nullptr;
        const int error = find(id, &entry, buffer.data(), buffer.size(), &found);
        if (error == ERANGE && buffer.size() < (1U << 20)) {
            buffer.resize(buffer.size() * 4);
            continue;
        }
        return found != nullptr ? found->*name : std::to_string(id);
    }
}

} // namespace

const std::string &UserNames::User(uint32_t uid) {
    const auto [at, isNew] = users_.try_emplace(uid);
    if (isNew) {
        at->second = NameOf<passwd>(uid, &passwd::pw_name, getpwuid_r);
    }
    return at->second;
}

const std::string &UserNames::Group(uint32_t gid) {
    const auto [at, isNew] = groups_.try_emplace(gid);
    if (isNew) {
        at->second = NameOf<group>(gid, &group::gr_name, getgrgid_r);
    }
    return at->second;
}

} // namespace tarnd
