// What a recorded fault was, in words.
#pragma once

#include <string>

#include "host/blackbox/record.h"
#include "host/clock/clocks.h"

namespace tarnd {

// "signal 11 SIGSEGV, address not mapped, address 0x10", or "assertion ...".
std::string CauseText(const host::blackbox::FaultHead &head);

host::WallTime TimeOf(const host::blackbox::FaultHead &head);

} // namespace tarnd
