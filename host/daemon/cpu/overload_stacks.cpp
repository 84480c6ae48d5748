#include "host/daemon/cpu/overload_stacks.h"

#include "host/osal/attempt.h"
#include "host/stacks/stacks.h"

namespace tarnd {

namespace {

std::string TextOfStack(const host::stacks::Stack &stack) {
    std::string text;
    for (const host::stacks::Frame &frame : stack.frames) {
        text += frame.Text() + "\n";
    }
    return text;
}

} // namespace

void ReadOverloadStacks(const host::procfs::Procfs &proc, Overload &overload) {
    host::stacks::Process process(overload.pid);
    for (OverloadThread &thread : overload.threads) {
        host::Attempt("an overload's stack", [&] {
            thread.name = proc.ReadThread(overload.pid, thread.tid).name;
            thread.stack = TextOfStack(process.Read(thread.tid));
        });
    }
}

} // namespace tarnd
