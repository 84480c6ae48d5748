// The names of users and groups.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace tarnd {

// Each name is looked up once. A user or group without a name has its number as text.
class UserNames {
public:
    static bool Knows(const std::string &user); // by its name

    const std::string &User(uint32_t uid);
    const std::string &Group(uint32_t gid);

private:
    std::map<uint32_t, std::string> users_;
    std::map<uint32_t, std::string> groups_;
};

} // namespace tarnd
