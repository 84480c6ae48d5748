// Writes down a crash of a process without an agent, where agents do.
#pragma once

#include <filesystem>

#include "host/core/core_head.h"
#include "host/core/crash.h"
#include "host/stacks/helpers.h"

namespace core {

// How long it may take, during which the process stays as it is.
constexpr std::chrono::seconds kMostRecordingTime{5};

// Into the black box of the crashed process's user below a directory, unless the process's agent has done that. Throws
// std::system_error.
void Record(const Crash &crash, const CoreHead &head, const std::filesystem::path &directory,
            host::stacks::Helpers &helpers);

} // namespace core
