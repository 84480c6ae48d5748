// What a process of this program gives up.
#pragma once

#include <cstdint>
#include <initializer_list>

namespace host::unwind {

// Of its capabilities keeps these at most, by their numbers in linux/capability.h, for itself and for what it executes.
void KeepCapabilities(std::initializer_list<unsigned> kept);

bool HasCapability(unsigned capability);

// From here on the process has no capability, little memory and time, and the few system calls that unwinding takes.
// To call one that starts, signals or reaches something else ends it.
void Confine();

} // namespace host::unwind
