// Numbers as people read them, by what they mean.
#pragma once

#include <cstdint>
#include <string>

#include "host/meaning/meaning.h"

namespace ctl {

// Of a scalar kind: with its unit, a process or a thread with its name, a choice, a flag or an error in words.
std::string ValueText(const host::meaning::Value &value, uint64_t number);

} // namespace ctl
