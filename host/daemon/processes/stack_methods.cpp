// Call stacks of the threads of a process, as they are now.
#include "host/stacks/stacks.h"

#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/daemon/processes/helper_time.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace tarnd {

namespace {

Tarn_sys_diag_CallStackThreadInfo Describe(uint32_t pid, const std::string &process, uint32_t tid,
                                           const host::stacks::Stack &stack) {
    const host::procfs::Task task = Daemon::Serving().proc.ReadThread(pid, tid);
    const uint64_t runNs = Daemon::Serving().proc.ReadSchedulerCount(pid, tid).runNs;
    Tarn_sys_diag_CallStackThreadInfo entry{};
    auto &[thread, name, cpuTime, processName, frames, heldUp, addresses, functions] = entry;
    thread = tid;
    host::CopyText(name, task.name);
    cpuTime = runNs / 1000;
    host::CopyText(processName, process);
    frames = static_cast<uint32_t>(stack.frames.size());
    heldUp = static_cast<uint32_t>(stack.stopped.count() / 1000);
    for (size_t i = 0; i < stack.frames.size(); ++i) {
        addresses[i] = stack.frames[i].address;
        host::CopyText(functions[i].szFuncName, stack.frames[i].Text());
    }
    return entry;
}

// Without frames where the thread does not stop: the others' stacks are worth telling.
host::stacks::Stack ReadUnlessStuck(host::stacks::Process &stacks, uint32_t tid) {
    try {
        return stacks.Read(tid);
    } catch (const std::system_error &error) {
        if (error.code().value() != ETIMEDOUT) {
            throw;
        }
        return {};
    }
}

// A thread that ends meanwhile is left out, unless it is the only one asked for.
std::vector<Tarn_sys_diag_CallStackThreadInfo> ReadStacks(const Tarn_sys_diag_Tid &request, void *replyCtx) {
    const std::string process = Daemon::Serving().proc.ReadProcess(request.uiPid).name;
    host::stacks::Process stacks(Daemon::Serving().tracer, Daemon::Serving().helpers, request.uiPid,
                                 HelperDeadline(replyCtx));
    std::vector<Tarn_sys_diag_CallStackThreadInfo> threads;
    if (request.uiTid != 0) {
        Daemon::Serving().proc.ReadThread(request.uiPid, request.uiTid); // of this process, or ESRCH
        threads.push_back(Describe(request.uiPid, process, request.uiTid, stacks.Read(request.uiTid)));
        return threads;
    }
    for (const uint32_t tid : Daemon::Serving().proc.ThreadIds(request.uiPid)) {
        if (const uint32_t reason = TarnHost_Cancelled(replyCtx); reason != 0) {
            throw std::system_error(static_cast<int>(reason), std::generic_category(),
                                    fmt::format("after the stacks of {} threads", threads.size()));
        }
        host::procfs::SkipEnded(
            [&] { threads.push_back(Describe(request.uiPid, process, tid, ReadUnlessStuck(stacks, tid))); });
    }
    return threads;
}

} // namespace

} // namespace tarnd

uint32_t GetCallStackInfoByTid(const Tarn_sys_diag_Tid *request, void *replyCtx) {
    return host::Answer(host::methods::GetCallStackInfoByTid, request, replyCtx, [&](auto &reply) {
        auto &[heldUp, threadNum, threads] = reply.Members();
        std::vector<Tarn_sys_diag_CallStackThreadInfo> stacks = tarnd::ReadStacks(*request, replyCtx);
        for (const auto &[thread, name, cpuTime, processName, frames, itsHeldUp, addresses, functions] : stacks) {
            heldUp += itsHeldUp;
        }
        threads = reply.Keep(std::move(stacks), threadNum);
    });
}
