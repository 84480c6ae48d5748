// The registers that a crash's record shows, by the names of this machine's architecture and in the order of agents.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "host/blackbox/record.h"
#include "host/stacks/snapshot.h"

namespace core {

// All are as wide as a pointer.
struct Register {
    const char *name;
    size_t offset; // in Registers

    uint64_t In(const host::stacks::Registers &registers) const {
        uintptr_t value = 0;
        memcpy(&value, reinterpret_cast<const char *>(&registers) + offset, sizeof value);
        return value;
    }
};

#define TARN_REGISTER(name)                                                                                            \
    { #name, offsetof(host::stacks::Registers, name) }
#define TARN_NUMBERED(name, number)                                                                                    \
    { name, offsetof(host::stacks::Registers, TARN_NUMBERS) + number * sizeof(uintptr_t) }

inline constexpr Register kRegisters[] = {
#if defined(__x86_64__)
    TARN_REGISTER(rip), TARN_REGISTER(rsp), TARN_REGISTER(rbp),    TARN_REGISTER(rax), TARN_REGISTER(rbx),
    TARN_REGISTER(rcx), TARN_REGISTER(rdx), TARN_REGISTER(rsi),    TARN_REGISTER(rdi), TARN_REGISTER(r8),
    TARN_REGISTER(r9),  TARN_REGISTER(r10), TARN_REGISTER(r11),    TARN_REGISTER(r12), TARN_REGISTER(r13),
    TARN_REGISTER(r14), TARN_REGISTER(r15), TARN_REGISTER(eflags),
#elif defined(__i386__)
    TARN_REGISTER(eip), TARN_REGISTER(esp), TARN_REGISTER(ebp), TARN_REGISTER(eax), TARN_REGISTER(ebx),
    TARN_REGISTER(ecx), TARN_REGISTER(edx), TARN_REGISTER(esi), TARN_REGISTER(edi), TARN_REGISTER(eflags),
#elif defined(__aarch64__)
#define TARN_NUMBERS regs
    TARN_REGISTER(pc),        TARN_REGISTER(sp),        TARN_NUMBERED("x0", 0),   TARN_NUMBERED("x1", 1),
    TARN_NUMBERED("x2", 2),   TARN_NUMBERED("x3", 3),   TARN_NUMBERED("x4", 4),   TARN_NUMBERED("x5", 5),
    TARN_NUMBERED("x6", 6),   TARN_NUMBERED("x7", 7),   TARN_NUMBERED("x8", 8),   TARN_NUMBERED("x9", 9),
    TARN_NUMBERED("x10", 10), TARN_NUMBERED("x11", 11), TARN_NUMBERED("x12", 12), TARN_NUMBERED("x13", 13),
    TARN_NUMBERED("x14", 14), TARN_NUMBERED("x15", 15), TARN_NUMBERED("x16", 16), TARN_NUMBERED("x17", 17),
    TARN_NUMBERED("x18", 18), TARN_NUMBERED("x19", 19), TARN_NUMBERED("x20", 20), TARN_NUMBERED("x21", 21),
    TARN_NUMBERED("x22", 22), TARN_NUMBERED("x23", 23), TARN_NUMBERED("x24", 24), TARN_NUMBERED("x25", 25),
    TARN_NUMBERED("x26", 26), TARN_NUMBERED("x27", 27), TARN_NUMBERED("x28", 28), TARN_NUMBERED("x29", 29),
    TARN_NUMBERED("x30", 30),
#elif defined(__arm__)
#define TARN_NUMBERS uregs
    TARN_NUMBERED("pc", 15),   TARN_NUMBERED("sp", 13),  TARN_NUMBERED("lr", 14), TARN_NUMBERED("r0", 0),
    TARN_NUMBERED("r1", 1),    TARN_NUMBERED("r2", 2),   TARN_NUMBERED("r3", 3),  TARN_NUMBERED("r4", 4),
    TARN_NUMBERED("r5", 5),    TARN_NUMBERED("r6", 6),   TARN_NUMBERED("r7", 7),  TARN_NUMBERED("r8", 8),
    TARN_NUMBERED("r9", 9),    TARN_NUMBERED("r10", 10), TARN_NUMBERED("fp", 11), TARN_NUMBERED("ip", 12),
    TARN_NUMBERED("cpsr", 16),
#else
#error "the registers of this architecture"
#endif
};
static_assert(std::size(kRegisters) <= std::size(host::blackbox::FaultHead{}.registers));

#undef TARN_REGISTER
#undef TARN_NUMBERED
#undef TARN_NUMBERS

} // namespace core
