// Users and groups by name or number.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace host {

// A number is its own, also where the system knows no such user or group.
std::optional<uid_t> UserIdOf(const std::string &text);
std::optional<gid_t> GroupIdOf(const std::string &text);

// The group that the system gives a user at its login; none where it does not know the user.
std::optional<gid_t> PrimaryGroupOf(uid_t user);

} // namespace host
