#include "host/runtime/policy.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>

#include "host/osal/accounts.h"
#include "host/runtime/catalogue.h"
#include "host/runtime/peer_process.h"

namespace host {
namespace {

[[noreturn]] void Refuse(const std::string &where, const std::string &what) {
    throw std::runtime_error(where + ": " + what);
}

std::vector<std::string> WordsOf(const std::string &line) {
    std::istringstream in(line.substr(0, line.find('#')));
    std::vector<std::string> words;
    for (std::string word; in >> word;) {
        words.push_back(word);
    }
    return words;
}

bool IsMethod(const std::string &name) {
    return FindMethod(name) != nullptr || IsOwnMethod(name);
}

constexpr char kMemoryOfOthers[] = "memory-of-others";

// What a line may begin with.
std::string WhatIsExpected() {
    std::string groups;
    for (const Group known : kGroups) {
        groups += fmt::format("{}, ", NameOf(known));
    }
    return fmt::format("{}{}, or a method's name", groups, kMemoryOfOthers);
}

} // namespace

bool ReadPeer(int fd, Peer &peer) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        return false;
    }
    peer.pid = credentials.pid;
    peer.uid = credentials.uid;
    peer.gid = credentials.gid;
    if (!KernelKeepsPeers()) {
        peer.process = std::make_shared<const Descriptor>(ProcessOfPeer(fd, peer.pid));
    }
    peer.groups.resize(32);
    while (true) {
        size = static_cast<socklen_t>(peer.groups.size() * sizeof(gid_t));
        const int result = getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, peer.groups.data(), &size);
        if (result != 0 && errno != ERANGE) {
            peer.groups.clear(); // a socket without them
            return true;
        }
        peer.groups.resize(size / sizeof(gid_t));
        if (result == 0) {
            return true;
        }
    }
}

Policy::Policy() {
    for (Rule &rule : groups_) {
        rule = ParseRule({"same-user", "user:root"}, "policy");
    }
    memoryOfOthers_ = groups_[static_cast<size_t>(Group::kMemory)];
}

Policy::Rule Policy::ParseRule(const std::vector<std::string> &words, const std::string &where) {
    Rule rule;
    for (const std::string &word : words) {
        rule.text += (rule.text.empty() ? "" : " ") + word;
        const std::string name = word.substr(std::min(word.find(':'), word.size() - 1) + 1);
        if (word == "anyone" || word == "nobody") {
            if (words.size() != 1) {
                Refuse(where, fmt::format("\"{}\" among others, expected it alone", word));
            }
            rule.anyone = word == "anyone";
        } else if (word == "same-user") {
            rule.sameUser = true;
        } else if (word == "user:root") {
            rule.users.push_back(0); // also where the system has no list of users
        } else if (word.starts_with("user:")) {
            const auto id = UserIdOf(name);
            if (!id.has_value()) {
                Refuse(where, fmt::format("no user \"{}\", expected a user's name or number", name));
            }
            rule.users.push_back(*id);
        } else if (word.starts_with("group:")) {
            const auto id = GroupIdOf(name);
            if (!id.has_value()) {
                Refuse(where, fmt::format("no group \"{}\", expected a group's name or number", name));
            }
            rule.groups.push_back(*id);
        } else {
            Refuse(where, fmt::format("\"{}\", expected anyone, nobody, same-user, user:NAME or group:NAME", word));
        }
    }
    return rule;
}

Policy Policy::Load(const std::filesystem::path &file) {
    std::ifstream in(file);
    if (!in) {
        throw std::runtime_error(fmt::format("{}: {}, expected a policy file", file.string(), strerrordesc_np(errno)));
    }
    Policy policy = Parse(in, file.string());
    if (in.bad()) {
        throw std::runtime_error(fmt::format("{}: it can't be read, expected a policy file", file.string()));
    }
    return policy;
}

Policy Policy::Parse(std::istream &text, const std::string &name) {
    Policy policy;
    std::set<std::string> seen;
    size_t number = 0;
    for (std::string line; std::getline(text, line);) {
        const std::string where = fmt::format("{}:{}", name, ++number);
        std::vector<std::string> words = WordsOf(line);
        if (words.empty()) {
            continue;
        }
        const std::string what = words.front();
        words.erase(words.begin());
        Rule *const rule = policy.RuleFor(what);
        if (rule == nullptr) {
            Refuse(where, fmt::format("\"{}\", expected {}", what, WhatIsExpected()));
        }
        if (!seen.insert(what).second) {
            Refuse(where, fmt::format("a second line for \"{}\", expected one", what));
        }
        if (words.empty()) {
            Refuse(where, fmt::format("\"{}\" without who may, expected e.g. same-user, or nobody", what));
        }
        *rule = ParseRule(words, where);
    }
    return policy;
}

// Null when a line can't begin with it.
Policy::Rule *Policy::RuleFor(const std::string &what) {
    if (what == kMemoryOfOthers) {
        return &memoryOfOthers_;
    }
    if (const auto group = GroupNamed(what)) {
        return &groups_[static_cast<size_t>(*group)];
    }
    return IsMethod(what) ? &methods_[what] : nullptr;
}

const Policy::Rule &Policy::RuleOf(std::string_view method) const {
    const auto own = methods_.find(method);
    return own != methods_.end() ? own->second : groups_[static_cast<size_t>(GroupOf(method))];
}

bool Policy::Allows(const Rule &rule, const Peer &peer) {
    const auto isMember = [&](gid_t group) { return group == peer.gid || std::ranges::count(peer.groups, group) != 0; };
    return rule.anyone || (rule.sameUser && peer.uid == geteuid()) || std::ranges::count(rule.users, peer.uid) != 0 ||
           std::ranges::any_of(rule.groups, isMember);
}

void Policy::AllowAlso(uid_t user) {
    for (Rule &rule : groups_) {
        rule.users.push_back(user);
        rule.text += fmt::format(" user:{}", user);
    }
    memoryOfOthers_.users.push_back(user);
}

bool Policy::Allows(const Peer &peer, std::string_view method) const {
    return Allows(RuleOf(method), peer);
}

bool Policy::AllowsMemoryOfOthers(const Peer &peer) const {
    return Allows(memoryOfOthers_, peer);
}

std::string Policy::Text(std::string_view method) const {
    return RuleOf(method).text;
}

bool Policy::AllowsOthers() const {
    const auto others = [](const Rule &rule) {
        return rule.anyone || !rule.groups.empty() ||
               std::ranges::any_of(rule.users, [](uid_t user) { return user != geteuid(); });
    };
    return std::ranges::any_of(groups_, others) ||
           std::ranges::any_of(methods_, [&](const auto &entry) { return others(entry.second); });
}

} // namespace host
