// Asks several agents at the same time.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace tarnd {

// Runs a function for each process, on threads of its own where there are several; returns when all have returned. What
// one throws is logged, and stops no other.
void AskAtOnce(const char *what, const std::vector<uint32_t> &pids, const std::function<void(uint32_t pid)> &ask);

} // namespace tarnd
