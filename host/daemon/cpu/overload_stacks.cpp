#include "host/daemon/cpu/overload_stacks.h"

#include "host/osal/attempt.h"
#include "host/osal/text.h"
#include "host/stacks/stacks.h"

namespace tarnd {

namespace {

std::string TextOfStack(const host::stacks::Stack &stack) {
    std::string text;
    for (const host::stacks::Frame &frame : stack.frames) {
        text += host::LineOfText(frame.Text()) + "\n";
    }
    return text;
}

} // namespace

void ReadOverloadStacks(host::stacks::Tracer &tracer, Overload &overload) {
    host::stacks::Process process(tracer, overload.pid);
    for (OverloadThread &thread : overload.threads) {
        host::Attempt("an overload's stack", [&] {
            thread.name = tracer.Proc().ReadThread(overload.pid, thread.tid).name;
            thread.stack = TextOfStack(process.Read(thread.tid));
        });
    }
}

} // namespace tarnd
