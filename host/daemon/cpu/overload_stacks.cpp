#include "host/daemon/cpu/overload_stacks.h"

#include <chrono>
#include <map>

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
    if (!stack.frames.empty() && stack.frames.back().moreFollow) {
        text += "(more frames are not told)\n";
    }
    const std::string modules = host::stacks::ModulesText(stack.frames);
    return text + (modules.empty() ? "" : "(" + modules + ")\n");
}

} // namespace

void ReadOverloadStacks(host::stacks::Tracer &tracer, host::stacks::Helpers &helpers, Overload &overload) {
    const auto deadline = std::chrono::steady_clock::now() + kMostTime;
    std::map<uint32_t, std::vector<OverloadThread *>> processes;
    for (OverloadThread &thread : overload.threads) {
        host::Attempt("an overload's thread",
                      [&] { thread.name = tracer.Proc().ReadThread(thread.pid, thread.tid).name; });
        processes[thread.pid].push_back(&thread);
    }
    for (const auto &[pid, threads] : processes) {
        host::Attempt("an overload's process", [&, pid = pid, &of = threads] {
            host::stacks::Process process(tracer, helpers, pid, deadline);
            for (OverloadThread *const thread : of) {
                host::Attempt("an overload's stack", [&] { thread->stack = TextOfStack(process.Read(thread->tid)); });
            }
        });
    }
}

} // namespace tarnd
