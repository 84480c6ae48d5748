// The tasks of the system: its processes' threads, as text for people.
#include <fnmatch.h>

#include <fmt/format.h>

#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/osal/text.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace tarnd {

namespace {

struct TaskFilter {
    uint32_t pid;
    uint32_t tid;
    std::string pattern; // of names
    uint32_t skip;
    uint32_t limit;
};

class TaskQuery {
public:
    explicit TaskQuery(const TaskFilter &filter) : filter_(filter) {}

    void Run() {
        if (filter_.pid != 0) {
            AddProcess(filter_.pid);
        } else {
            for (const uint32_t pid : daemon_.proc.ProcessIds()) {
                host::procfs::SkipHidden([&] { AddProcess(pid); });
            }
        }
        if (filter_.tid != 0 && !tidSeen_) {
            throw std::system_error(ESRCH, std::generic_category(), fmt::format("thread {}", filter_.tid));
        }
    }

    uint32_t Matches() const { return matches_; }
    const std::string &Info() const { return info_; }
    const std::string &Record() const { return record_; }

private:
    void AddProcess(uint32_t pid) {
        for (const host::procfs::Task &task : daemon_.proc.ReadThreads(pid)) {
            if (filter_.tid != 0 && task.id != filter_.tid) {
                continue;
            }
            tidSeen_ = true;
            if (!filter_.pattern.empty() && fnmatch(filter_.pattern.c_str(), task.name.c_str(), 0) != 0) {
                continue;
            }
            const uint32_t index = matches_++;
            if (index >= filter_.skip && (filter_.limit == 0 || index - filter_.skip < filter_.limit)) {
                host::procfs::SkipEnded([&] { AddTask(pid, task); });
            }
        }
    }

    void AddTask(uint32_t pid, const host::procfs::Task &task) {
        const host::procfs::SchedulerCount count = daemon_.proc.ReadSchedulerCount(pid, task.id);
        info_ +=
            fmt::format("{:>8} {:>8} {:<16} {:<24} {:>10} {:>4} {}\n", pid, task.id, host::LineOfText(task.name),
                        host::procfs::StateText(task.state), task.CpuTicks() * 1000 / host::procfs::TicksPerSecond(),
                        task.lastCpu, host::procfs::SchedulingText(task));
        const StarvationRecord starved = daemon_.starvation.Of(pid, task.id).value_or(StarvationRecord{});
        record_ += fmt::format("{:>8} {:>8} {:<16} {:>14} {:>14} {:>10} {:>8} {:>10} {}\n", pid, task.id,
                               host::LineOfText(task.name), count.runNs / 1000, count.waitNs / 1000, count.sliceNum,
                               starved.times, starved.longest.count() / 1'000'000,
                               starved.times == 0 ? "-" : daemon_.clock.Text(starved.last));
    }

    Daemon &daemon_ = Daemon::Serving();
    const TaskFilter filter_;
    bool tidSeen_ = false;
    uint32_t matches_ = 0;
    std::string info_ = fmt::format("{:>8} {:>8} {:<16} {:<24} {:>10} {:>4} {}\n", "PID", "TID", "NAME", "STATE",
                                    "CPU ms", "CPU", "SCHEDULING");
    std::string record_ = fmt::format("{:>8} {:>8} {:<16} {:>14} {:>14} {:>10} {:>8} {:>10} {}\n", "PID", "TID", "NAME",
                                      "RUN us", "WAIT us", "SLICES", "STARVED", "LONGEST ms", "LAST");
};

} // namespace

} // namespace tarnd

uint32_t GetTaskInfo(const Tarn_sys_diag_GetTaskInfoInput *request, void *replyCtx) {
    return host::Answer(host::methods::GetTaskInfo, request, replyCtx, [&](auto &reply) {
        const auto &[process, thread, names, skip, most] = *request;
        tarnd::TaskQuery query({process, thread, names == nullptr ? "" : names, skip, most});
        query.Run();
        auto &[threads, matches, counts] = reply.Members();
        threads = reply.Keep(query.Info());
        matches = query.Matches();
        counts = reply.Keep(query.Record());
    });
}

uint32_t ResetTaskRecord(const Tarn_sys_diag_ResetTaskRecordInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::ResetTaskRecord, request, replyCtx, [&] {
        if (request->uiTaskId == 0) {
            tarnd::Daemon::Serving().starvation.Reset();
        } else {
            tarnd::Daemon::Serving().starvation.Reset(request->uiTaskId);
        }
    });
}

uint32_t SetTaskStarvThreshold(const Tarn_sys_diag_StarvTaskThresholdInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::SetTaskStarvThreshold, request, replyCtx, [&] {
        tarnd::Daemon::Serving().starvation.SetThreshold(std::chrono::milliseconds(request->uiStarvThreshold));
    });
}

uint32_t SetTaskSwitch(const Tarn_sys_diag_TaskSwitchInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::SetTaskSwitch, request, replyCtx,
                              [&] { tarnd::Daemon::Serving().starvation.Switch(request->uiTaskSwitch == 1); });
}
