// Who may call what. A policy file has a line for each group of methods (groups.h) or method that it speaks of:
//
//   # what               who
//   reading              anyone
//   memory               same-user user:root group:adm
//   GetCallStackInfoByTid  user:root user:1000
//   commands             nobody
//
// The words behind the first allow: same-user the user that the server runs as, user: and group: a name or a number,
// a group also as one of the caller's further ones. `anyone` and `nobody` stand alone. A method's line replaces what
// its group's says. A group without a line allows same-user and user:root, which is also the policy without a file.
//
// Who may call a method of `memory` may look into processes of its own. Into those of others, root's among them, may
// whom a line of its own names:
//
//   memory-of-others     same-user user:root group:adm
#pragma once

#include <sys/types.h>

#include <array>
#include <filesystem>
#include <istream>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/meaning/groups.h"
#include "host/osal/descriptor.h"

namespace host {

// A connected process, as the kernel names it.
struct Peer {
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups = {}; // the further ones
    // The process, where the kernel does not keep it for whoever asks later.
    std::shared_ptr<const Descriptor> process = {};
};

// Of the other end of a Unix-domain socket. False, with errno set, when the system does not tell.
bool ReadPeer(int fd, Peer &peer);

class Policy {
public:
    Policy();

    // Throws std::runtime_error with "file:line: what is wrong, expected what".
    static Policy Load(const std::filesystem::path &file);
    static Policy Parse(std::istream &text, const std::string &name);

    // A user more to whom every group allows its methods.
    void AllowAlso(uid_t user);

    bool Allows(const Peer &peer, std::string_view method) const;

    // Whether a peer may look into processes that aren't its own, with the methods of `memory` that it may call.
    bool AllowsMemoryOfOthers(const Peer &peer) const;

    // What the policy says of a method, as in the file.
    std::string Text(std::string_view method) const;

    // Whether somebody other than the server's user may call something: also root, which without its capabilities is
    // a user like any other.
    bool AllowsOthers() const;

private:
    struct Rule {
        bool anyone = false;
        bool sameUser = false; // as it is at the call: a program may become another user before it serves
        std::vector<uid_t> users;
        std::vector<gid_t> groups;
        std::string text;
    };
    static Rule ParseRule(const std::vector<std::string> &words, const std::string &where);
    static bool Allows(const Rule &rule, const Peer &peer);
    const Rule &RuleOf(std::string_view method) const;
    Rule *RuleFor(const std::string &what);

    std::array<Rule, std::size(kGroups)> groups_;
    Rule memoryOfOthers_;
    std::map<std::string, Rule, std::less<>> methods_;
};

} // namespace host
