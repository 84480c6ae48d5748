// Names of functions as their authors wrote them. A name is whoever's who built a library: a short one may stand for
// more text than there is memory, and for more work than anyone waits for.
#pragma once

#include <string>

namespace host::unwind {

// At most kMostNameBytes of it; empty where the name is none of C++, or takes too long.
std::string Demangle(const std::string &name);

} // namespace host::unwind
