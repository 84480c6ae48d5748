// The tasks of the system: its processes' threads, as text for people.
#include <fnmatch.h>

#include <fmt/format.h>

#include "host/answer/answer.h"
#include "host/procfs/procfs.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

class TaskQuery {
public:
    explicit TaskQuery(const Tarn_sys_diag_GetTaskInfoInput &request)
        : pid_(request.uiTaskParam1), tid_(request.uiTaskParam2),
          pattern_(request.pcTaskName == nullptr ? "" : request.pcTaskName), skip_(request.uiTaskParam3),
          limit_(request.uiTaskParam4) {}

    void Run() {
        if (pid_ != 0) {
            AddProcess(pid_);
        } else {
            for (const uint32_t pid : host::procfs::ProcessIds()) {
                host::procfs::SkipHidden([&] { AddProcess(pid); });
            }
        }
        if (tid_ != 0 && !tidSeen_) {
            throw std::system_error(ESRCH, std::generic_category(), fmt::format("thread {}", tid_));
        }
    }

    uint32_t Matches() const { return matches_; }
    const std::string &Info() const { return info_; }
    const std::string &Record() const { return record_; }

private:
    void AddProcess(uint32_t pid) {
        for (const host::procfs::Task &task : host::procfs::ReadThreads(pid)) {
            if (tid_ != 0 && task.id != tid_) {
                continue;
            }
            tidSeen_ = true;
            if (!pattern_.empty() && fnmatch(pattern_.c_str(), task.name.c_str(), 0) != 0) {
                continue;
            }
            const uint32_t index = matches_++;
            if (index >= skip_ && (limit_ == 0 || index - skip_ < limit_)) {
                host::procfs::SkipEnded([&] { AddTask(pid, task); });
            }
        }
    }

    void AddTask(uint32_t pid, const host::procfs::Task &task) {
        const host::procfs::SchedulerCount count = host::procfs::ReadSchedulerCount(pid, task.id);
        info_ +=
            fmt::format("{:>8} {:>8} {:<16} {:<24} {:>10} {:>4} {}\n", pid, task.id, Printable(task.name),
                        host::procfs::StateText(task.state), task.CpuTicks() * 1000 / host::procfs::TicksPerSecond(),
                        task.lastCpu, host::procfs::SchedulingText(task));
        record_ += fmt::format("{:>8} {:>8} {:<16} {:>14} {:>14} {:>10}\n", pid, task.id, Printable(task.name),
                               count.runNs / 1000, count.waitNs / 1000, count.sliceNum);
    }

    // A thread may call itself anything, a line feed included.
    static std::string Printable(std::string name) {
        for (char &c : name) {
            c = c >= ' ' && c != 0x7F ? c : '?';
        }
        return name;
    }

    const uint32_t pid_;
    const uint32_t tid_;
    const std::string pattern_;
    const uint32_t skip_;
    const uint32_t limit_;
    bool tidSeen_ = false;
    uint32_t matches_ = 0;
    std::string info_ = fmt::format("{:>8} {:>8} {:<16} {:<24} {:>10} {:>4} {}\n", "PID", "TID", "NAME", "STATE",
                                    "CPU ms", "CPU", "SCHEDULING");
    std::string record_ =
        fmt::format("{:>8} {:>8} {:<16} {:>14} {:>14} {:>10}\n", "PID", "TID", "NAME", "RUN us", "WAIT us", "SLICES");
};

} // namespace

} // namespace tarnd

uint32_t GetTaskInfo(const Tarn_sys_diag_GetTaskInfoInput *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_GetTaskInfoResult>(__func__, replyCtx, [&](auto &reply) {
        tarnd::TaskQuery query(*request);
        query.Run();
        reply.uiTaskValue = query.Matches();
        reply.pcTaskInfo = reply.Keep(query.Info());
        reply.pcTaskRecord = reply.Keep(query.Record());
    });
}
