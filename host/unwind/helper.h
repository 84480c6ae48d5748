// A helper: gives up its rights, then answers what the daemon asks until that has no more questions.
#pragma once

#include <cstdint>

namespace host::unwind {

// To look into a process. The exit status.
int RunUnwinder(uint32_t pid, uint64_t startTicks);

int RunDemangler();

} // namespace host::unwind
