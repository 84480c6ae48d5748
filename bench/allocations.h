#pragma once

#include <cstddef>

namespace bench {

// How often the process has allocated memory so far.
size_t AllocationNum();

} // namespace bench
