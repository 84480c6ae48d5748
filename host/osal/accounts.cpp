#include "host/osal/accounts.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <charconv>
#include <vector>

namespace host {

namespace {

// What the system's data base has, whose buffer grows until the entry fits.
template <class Entry, class Key, class Id>
std::optional<Id> Find(Key key, int (*find)(Key, Entry *, char *, size_t, Entry **), Id Entry::*member) {
    std::vector<char> buffer(1024);
    Entry entry;
    Entry *found = nullptr;
    while (find(key, &entry, buffer.data(), buffer.size(), &found) == ERANGE) {
        buffer.resize(2 * buffer.size());
    }
    return found == nullptr ? std::nullopt : std::optional(found->*member);
}

template <class Entry>
std::optional<id_t> IdOf(const std::string &text, int (*find)(const char *, Entry *, char *, size_t, Entry **),
                         id_t Entry::*member) {
    id_t id = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
    if (error == std::errc() && end == text.data() + text.size() && id != static_cast<id_t>(-1)) {
        return id;
    }
    return Find(text.c_str(), find, member);
}

} // namespace

std::optional<uid_t> UserIdOf(const std::string &text) {
    return IdOf(text, getpwnam_r, &passwd::pw_uid);
}

std::optional<gid_t> GroupIdOf(const std::string &text) {
    return IdOf(text, getgrnam_r, &group::gr_gid);
}

std::optional<gid_t> PrimaryGroupOf(uid_t user) {
    return Find(user, getpwuid_r, &passwd::pw_gid);
}

} // namespace host
