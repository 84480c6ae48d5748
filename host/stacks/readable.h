// Texts with the names of functions as symbols have them, as people write them.
#pragma once

#include <string>
#include <string_view>

#include "host/stacks/helpers.h"

namespace host::stacks {

// Each name of C++ in the text, demangled.
std::string WithReadableNames(std::string_view text, Demangler &names);

} // namespace host::stacks
