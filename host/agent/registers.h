// The registers that a fault's record shows, by the names of this machine's architecture and in that order.
#pragma once

#include <ucontext.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace agent {

// All are as wide as a pointer.
struct Register {
    const char *name;
    size_t offset; // in mcontext_t

    uint64_t In(const ucontext_t &context) const {
        uintptr_t value = 0;
        memcpy(&value, reinterpret_cast<const char *>(&context.uc_mcontext) + offset, sizeof value);
        return value;
    }
};

#if defined(__x86_64__) || defined(__i386__)
#define TARN_REGISTER(name, index)                                                                                     \
    { name, offsetof(mcontext_t, gregs) + index * sizeof(greg_t) }
#else
#define TARN_REGISTER(name, member)                                                                                    \
    { name, offsetof(mcontext_t, member) }
#endif

inline constexpr Register kRegisters[] = {
#if defined(__x86_64__)
    TARN_REGISTER("rip", REG_RIP), TARN_REGISTER("rsp", REG_RSP), TARN_REGISTER("rbp", REG_RBP),
    TARN_REGISTER("rax", REG_RAX), TARN_REGISTER("rbx", REG_RBX), TARN_REGISTER("rcx", REG_RCX),
    TARN_REGISTER("rdx", REG_RDX), TARN_REGISTER("rsi", REG_RSI), TARN_REGISTER("rdi", REG_RDI),
    TARN_REGISTER("r8", REG_R8),   TARN_REGISTER("r9", REG_R9),   TARN_REGISTER("r10", REG_R10),
    TARN_REGISTER("r11", REG_R11), TARN_REGISTER("r12", REG_R12), TARN_REGISTER("r13", REG_R13),
    TARN_REGISTER("r14", REG_R14), TARN_REGISTER("r15", REG_R15), TARN_REGISTER("eflags", REG_EFL),
#elif defined(__i386__)
    TARN_REGISTER("eip", REG_EIP),    TARN_REGISTER("esp", REG_ESP), TARN_REGISTER("ebp", REG_EBP),
    TARN_REGISTER("eax", REG_EAX),    TARN_REGISTER("ebx", REG_EBX), TARN_REGISTER("ecx", REG_ECX),
    TARN_REGISTER("edx", REG_EDX),    TARN_REGISTER("esi", REG_ESI), TARN_REGISTER("edi", REG_EDI),
    TARN_REGISTER("eflags", REG_EFL),
#elif defined(__aarch64__)
    TARN_REGISTER("pc", pc),        TARN_REGISTER("sp", sp),        TARN_REGISTER("x0", regs[0]),
    TARN_REGISTER("x1", regs[1]),   TARN_REGISTER("x2", regs[2]),   TARN_REGISTER("x3", regs[3]),
    TARN_REGISTER("x4", regs[4]),   TARN_REGISTER("x5", regs[5]),   TARN_REGISTER("x6", regs[6]),
    TARN_REGISTER("x7", regs[7]),   TARN_REGISTER("x8", regs[8]),   TARN_REGISTER("x9", regs[9]),
    TARN_REGISTER("x10", regs[10]), TARN_REGISTER("x11", regs[11]), TARN_REGISTER("x12", regs[12]),
    TARN_REGISTER("x13", regs[13]), TARN_REGISTER("x14", regs[14]), TARN_REGISTER("x15", regs[15]),
    TARN_REGISTER("x16", regs[16]), TARN_REGISTER("x17", regs[17]), TARN_REGISTER("x18", regs[18]),
    TARN_REGISTER("x19", regs[19]), TARN_REGISTER("x20", regs[20]), TARN_REGISTER("x21", regs[21]),
    TARN_REGISTER("x22", regs[22]), TARN_REGISTER("x23", regs[23]), TARN_REGISTER("x24", regs[24]),
    TARN_REGISTER("x25", regs[25]), TARN_REGISTER("x26", regs[26]), TARN_REGISTER("x27", regs[27]),
    TARN_REGISTER("x28", regs[28]), TARN_REGISTER("x29", regs[29]), TARN_REGISTER("x30", regs[30]),
#elif defined(__arm__)
    TARN_REGISTER("pc", arm_pc), TARN_REGISTER("sp", arm_sp),     TARN_REGISTER("lr", arm_lr),
    TARN_REGISTER("r0", arm_r0), TARN_REGISTER("r1", arm_r1),     TARN_REGISTER("r2", arm_r2),
    TARN_REGISTER("r3", arm_r3), TARN_REGISTER("r4", arm_r4),     TARN_REGISTER("r5", arm_r5),
    TARN_REGISTER("r6", arm_r6), TARN_REGISTER("r7", arm_r7),     TARN_REGISTER("r8", arm_r8),
    TARN_REGISTER("r9", arm_r9), TARN_REGISTER("r10", arm_r10),   TARN_REGISTER("fp", arm_fp),
    TARN_REGISTER("ip", arm_ip), TARN_REGISTER("cpsr", arm_cpsr),
#else
#error "the registers of this architecture"
#endif
};

#undef TARN_REGISTER

} // namespace agent
