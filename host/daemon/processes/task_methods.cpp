// The tasks of the system: its processes' threads, as text for people.
#include <fnmatch.h>

#include <fmt/format.h>

#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/osal/text.h"
#include "host/values/daemon.h"
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
            for (const uint32_t pid : daemon_.proc.ProcessIds()) {
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
        for (const host::procfs::Task &task : daemon_.proc.ReadThreads(pid)) {
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
        const host::procfs::SchedulerCount count = daemon_.proc.ReadSchedulerCount(pid, task.id);
        info_ +=
            fmt::format("{:>8} {:>8} {:<16} {:<24} {:>10} {:>4} {}\n", pid, task.id, host::Printable(task.name),
                        host::procfs::StateText(task.state), task.CpuTicks() * 1000 / host::procfs::TicksPerSecond(),
                        task.lastCpu, host::procfs::SchedulingText(task));
        const StarvationRecord starved = daemon_.starvation.Of(pid, task.id).value_or(StarvationRecord{});
        record_ += fmt::format("{:>8} {:>8} {:<16} {:>14} {:>14} {:>10} {:>8} {:>10} {}\n", pid, task.id,
                               host::Printable(task.name), count.runNs / 1000, count.waitNs / 1000, count.sliceNum,
                               starved.times, starved.longest.count() / 1'000'000,
                               starved.times == 0 ? "-" : TimeText(starved.last));
    }

    // "2024-02-29T23:59:58.123"
    std::string TimeText(host::WallTime when) const {
        const Tarn_sys_diag_Systime time = daemon_.clock.LocalTime(when);
        return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}", time.usYear, time.ucMonth, time.ucDay,
                           time.ucHour, time.ucMinute, time.ucSecond, time.uiMillisecond);
    }

    Daemon &daemon_ = Daemon::Serving();
    const uint32_t pid_;
    const uint32_t tid_;
    const std::string pattern_;
    const uint32_t skip_;
    const uint32_t limit_;
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
        tarnd::TaskQuery query(*request);
        query.Run();
        reply.uiTaskValue = query.Matches();
        reply.pcTaskInfo = reply.Keep(query.Info());
        reply.pcTaskRecord = reply.Keep(query.Record());
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
        const uint32_t ms = request->uiStarvThreshold;
        if (ms == 0 || ms > TARND_STARVATION_MAX_MS) {
            throw host::BadValue("uiStarvThreshold", ms, fmt::format("1 to {} ms", TARND_STARVATION_MAX_MS));
        }
        tarnd::Daemon::Serving().starvation.SetThreshold(std::chrono::milliseconds(ms));
    });
}

uint32_t SetTaskSwitch(const Tarn_sys_diag_TaskSwitchInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::SetTaskSwitch, request, replyCtx, [&] {
        if (request->uiTaskSwitch > 1) {
            throw host::BadValue("uiTaskSwitch", request->uiTaskSwitch, "0 or 1");
        }
        tarnd::Daemon::Serving().starvation.Switch(request->uiTaskSwitch == 1);
    });
}
