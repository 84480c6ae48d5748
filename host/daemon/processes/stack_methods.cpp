// Call stacks of the threads of a process, as they are now.
#include "host/stacks/stacks.h"

#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/daemon/processes/helper_time.h"
#include "host/daemon/processes/room.h"
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

// The stacks that are told, and what there is no room for beside them.
class Stacks {
public:
    Stacks(const Tarn_sys_diag_Tid &request, void *replyCtx)
        : pid_(request.uiPid), process_(Daemon::Serving().proc.ReadProcess(pid_)),
          stacks_(Daemon::Serving().tracer, Daemon::Serving().helpers, pid_, HelperDeadline(replyCtx)) {
        if (request.uiTid != 0) {
            Daemon::Serving().proc.ReadThread(pid_, request.uiTid); // of this process, or ESRCH
            Add(request.uiTid, stacks_.Read(request.uiTid));
        } else {
            AddAll(replyCtx);
        }
    }

    std::vector<Tarn_sys_diag_CallStackThreadInfo> &Threads() { return threads_; }

    // Which threads have more frames than are told, and what symbolizes the addresses elsewhere.
    std::string Explanation() const {
        constexpr size_t kMostTold = 1024; // of what TarnHost_ExplainReply is given
        std::string text;
        for (const uint32_t tid : cut_) {
            text += fmt::format("of thread {} more frames are not told; ", tid);
        }
        return WithinRoom(text + host::stacks::ModulesText(frames_), kMostTold);
    }

private:
    // A thread that ends meanwhile is left out, unless it is the only one asked for.
    void AddAll(void *replyCtx) {
        for (const uint32_t tid : Daemon::Serving().proc.ThreadIds(pid_)) {
            if (const uint32_t reason = TarnHost_Cancelled(replyCtx); reason != 0) {
                host::Fail(static_cast<int>(reason), fmt::format("after the stacks of {} threads", threads_.size()));
            }
            host::procfs::SkipEnded([&] { Add(tid, ReadUnlessStuck(stacks_, tid)); });
        }
        if (!Daemon::Serving().proc.Runs(pid_, process_.startTicks)) { // else some of its threads would pass for all
            host::Fail(ESRCH, fmt::format("process {} has ended meanwhile", pid_));
        }
    }

    void Add(uint32_t tid, const host::stacks::Stack &stack) {
        threads_.push_back(Describe(pid_, process_.name, tid, stack));
        frames_.insert(frames_.end(), stack.frames.begin(), stack.frames.end());
        if (!stack.frames.empty() && stack.frames.back().moreFollow) {
            cut_.push_back(tid);
        }
    }

    const uint32_t pid_;
    const host::procfs::Task process_;
    host::stacks::Process stacks_;
    std::vector<Tarn_sys_diag_CallStackThreadInfo> threads_;
    std::vector<host::stacks::Frame> frames_;
    std::vector<uint32_t> cut_;
};

} // namespace

} // namespace tarnd

uint32_t GetCallStackInfoByTid(const Tarn_sys_diag_Tid *request, void *replyCtx) {
    return host::Answer(host::methods::GetCallStackInfoByTid, request, replyCtx, [&](auto &reply) {
        auto &[heldUp, threadNum, threads] = reply.Members();
        tarnd::Stacks stacks(*request, replyCtx);
        for (const Tarn_sys_diag_CallStackThreadInfo &thread : stacks.Threads()) {
            heldUp += thread.uiValue3;
        }
        threads = reply.Keep(std::move(stacks.Threads()), threadNum);
        TarnHost_ExplainReply(replyCtx, stacks.Explanation().c_str());
    });
}
