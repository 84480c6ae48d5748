#include "host/daemon/cpu/overload_stacks.h"

#include <chrono>

#include "host/osal/attempt.h"
#include "host/stacks/stacks.h"

namespace tarnd {

namespace {

// The next overload waits for this one's stacks.
constexpr std::chrono::seconds kMostTime{5};

std::string TextOfStack(const host::stacks::Stack &stack) {
    std::string text;
    for (const host::stacks::Frame &frame : stack.frames) {
        text += frame.Text() + "\n";
    }
    return text;
}

} // namespace

void ReadOverloadStacks(host::stacks::Tracer &tracer, host::stacks::Helpers &helpers, Overload &overload) {
    host::stacks::Process process(tracer, helpers, overload.pid, std::chrono::steady_clock::now() + kMostTime);
    for (OverloadThread &thread : overload.threads) {
        host::Attempt("an overload's stack", [&] {
            thread.name = tracer.Proc().ReadThread(overload.pid, thread.tid).name;
            thread.stack = TextOfStack(process.Read(thread.tid));
        });
    }
}

} // namespace tarnd
