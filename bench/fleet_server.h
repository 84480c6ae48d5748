// A fleet's server on this machine, and processes beside it.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace bench {

// Runs it in a process of its own, which ends with this one.
pid_t StartChild(const std::function<void()> &run);

// On a port of its own choice, with what it keeps in the directory.
pid_t StartFleetServer(const std::string &directory);

// Of the server in the directory. Throws std::runtime_error while it is not ready.
std::string UrlIn(const std::string &directory);
std::string AwaitUrl(const std::string &directory);

} // namespace bench
