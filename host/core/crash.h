// What the kernel says of a process that dumps core, on the command line of the program that it pipes the core to.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>

namespace core {

// The specifiers of kernel.core_pattern that are asked for, in their order. Those that a kernel does not know come
// empty.
inline constexpr char kSpecifiers[] = "PpIisugdtchefE";

class Crash {
public:
    // As many words as there are specifiers. Throws EINVAL where there are not, or where what is a number is none.
    explicit Crash(std::span<char *const> words);

    // The value of a specifier; empty for others. The kernel has replaced what would lead out of a directory.
    const std::string &Text(char specifier) const;

    // As the kernel numbers them, and as they number themselves.
    uint32_t Pid() const { return pid_; }
    uint32_t OwnPid() const { return ownPid_; }
    uint32_t Tid() const { return tid_; }
    uint32_t OwnTid() const { return ownTid_; }
    int32_t Signal() const { return signal_; }
    uint32_t User() const { return user_; }
    uint32_t Group() const { return group_; }
    // False for a program with rights that its user lacks.
    bool IsPlain() const { return isPlain_; }
    // Bytes that a core file may have.
    uint64_t Limit() const { return limit_; }

private:
    template <class Number>
    Number NumberOf(char specifier) const;

    std::map<char, std::string> texts_;
    uint32_t pid_, ownPid_, tid_, ownTid_, user_, group_;
    int32_t signal_;
    bool isPlain_;
    uint64_t limit_;
};

} // namespace core
