// Directories that are made, and what others put into those that everybody may write.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <system_error>

#include "host/osal/descriptor.h"

namespace host {

// Gives a file that was opened with O_PATH its mode: the one that is open, whatever its path leads to by now. False
// with errno after a failure.
bool ChangeMode(const Descriptor &file, mode_t mode);

// Creates what is missing of a path: the last directory with this mode, those above it with 0755, whatever the umask.
std::error_code MakeDirectories(const std::filesystem::path &path, mode_t mode);

// 16 hexadecimal digits that nobody can foresee.
std::string RandomDigits();

// A name of such digits, which nobody can have taken.
std::string HiddenName();

// Frees a name in a directory from what another user put there. False with errno after a failure.
bool Evict(const Descriptor &directory, const std::string &name);

} // namespace host
