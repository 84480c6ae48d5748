#include "host/daemon/processes/fault_text.h"

#include <fmt/format.h>

#include <csignal>
#include <cstring>

#include "host/osal/text.h"

namespace tarnd {

namespace {

using host::blackbox::FaultHead;
using host::blackbox::FaultKind;

const char *SignalCause(int signal, int code) {
    static constexpr struct {
        int signal;
        int code;
        const char *text;
    } kCauses[] = {
        {SIGSEGV, SEGV_MAPERR, "address not mapped"},     {SIGSEGV, SEGV_ACCERR, "no permission for the access"},
        {SIGBUS, BUS_ADRALN, "misaligned address"},       {SIGBUS, BUS_ADRERR, "nothing behind the address"},
        {SIGFPE, FPE_INTDIV, "integer division by zero"}, {SIGFPE, FPE_INTOVF, "integer overflow"},
        {SIGILL, ILL_ILLOPC, "illegal opcode"},           {SIGILL, ILL_ILLOPN, "illegal operand"}};
    for (const auto &cause : kCauses) {
        if (cause.signal == signal && cause.code == code) {
            return cause.text;
        }
    }
    return code <= 0 ? "sent by a process" : "raised by the kernel";
}

std::string SignalText(const FaultHead &head) {
    const char *const name = sigabbrev_np(head.signal);
    std::string text = fmt::format("signal {} SIG{}, {}", head.signal, name == nullptr ? "?" : name,
                                   SignalCause(head.signal, head.code));
    if (head.code > 0) {
        text += fmt::format(", address {:#x}", head.address);
    }
    return text;
}

} // namespace

std::string CauseText(const FaultHead &head) {
    return head.kind == FaultKind::kException ? SignalText(head) : "assertion " + host::LineOfText(head.text);
}

host::WallTime TimeOf(const FaultHead &head) {
    constexpr uint64_t kSecond = 1'000'000'000;
    return host::NearestWallTime(std::chrono::seconds(head.timeNs / kSecond),
                                 std::chrono::nanoseconds(head.timeNs % kSecond));
}

} // namespace tarnd
