#include "host/daemon/processes/users.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <optional>
#include <string>
#include <vector>

namespace tarnd {

namespace {

// `find` is getpwuid_r or one like it, whose buffer grows until the entry fits.
template <class Entry, class Key, class Find>
std::optional<std::string> Found(Key key, char *Entry::*name, Find find) {
    std::vector<char> buffer(1024);
    for (;;) {
        Entry entry{};
        Entry *found = nullptr;
        const int error = find(key, &entry, buffer.data(), buffer.size(), &found);
        if (error == ERANGE && buffer.size() < (1U << 20)) {
            buffer.resize(buffer.size() * 4);
            continue;
        }
        return found != nullptr ? std::optional<std::string>(found->*name) : std::nullopt;
    }
}

} // namespace

bool UserNames::Knows(const std::string &user) {
    return Found(user.c_str(), &passwd::pw_name, getpwnam_r).has_value();
}

const std::string &UserNames::User(uint32_t uid) {
    const auto [at, isNew] = users_.try_emplace(uid);
    if (isNew) {
        at->second = Found(uid, &passwd::pw_name, getpwuid_r).value_or(std::to_string(uid));
    }
    return at->second;
}

const std::string &UserNames::Group(uint32_t gid) {
    const auto [at, isNew] = groups_.try_emplace(gid);
    if (isNew) {
        at->second = Found(gid, &group::gr_name, getgrgid_r).value_or(std::to_string(gid));
    }
    return at->second;
}

} // namespace tarnd
