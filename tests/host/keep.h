// Has the compiler make what a test is about, though nothing reads it.
#pragma once

namespace kit {

template <class Value>
void Keep(const Value &value) {
    asm volatile("" : : "r"(&value) : "memory");
}

} // namespace kit
