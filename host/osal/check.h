// For work that takes long.
#pragma once

#include <functional>

namespace host {

// Called by the work now and then: throws when its result is no longer wanted.
using Check = std::function<void()>;

} // namespace host
