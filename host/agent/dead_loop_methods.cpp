// How threads are watched for dead loops, as it is asked for from outside.
#include "host/agent/agent.h"
#include "host/agent/methods.h"

namespace agent {

namespace {

Tarn_sys_diag_DeadLoopThreadCfg ToRecord(const host::procfs::Task &task, const DeadLoops::Thread &thread,
                                         const DeadLoops::Config &config) {
    Tarn_sys_diag_DeadLoopThreadCfg record{};
    record.uiTid = task.id;
    host::CopyText(record.szThreadName, task.name);
    record.ucSwitch = thread.watched ? 1 : 0;
    record.uiLimitMs = static_cast<uint32_t>(thread.limit.value_or(config.limit).count());
    record.uiDetectNum = thread.detectNum;
    return record;
}

} // namespace

uint32_t GetDeadLoopCfg(const Tarn_sys_diag_GetDeadLoopCfgInput *request, void *replyCtx) {
    return host::AnswerWithResult(host::methods::GetDeadLoopCfg, request, replyCtx, [&](auto &reply) {
        const auto &[wanted, withLoops, process] = *request;
        CheckProcess(host::methods::GetDeadLoopCfg, process);
        const Agent &agent = Agent::OfProcess();
        const DeadLoops::Config config = agent.deadLoops.GetConfig();
        std::vector<Tarn_sys_diag_DeadLoopThreadCfg> threads;
        for (const host::procfs::Task &task : agent.procfs.ReadThreads(OwnPid())) {
            const DeadLoops::Thread thread = agent.deadLoops.GetThread(task.id);
            if ((wanted == 0 || wanted == task.id) && (withLoops == 0 || thread.detectNum != 0)) {
                threads.push_back(ToRecord(task, thread, config));
            }
        }
        if (wanted != 0 && threads.empty() && withLoops == 0) {
            host::Fail(ESRCH, fmt::format("thread {}", wanted));
        }
        reply.ucSwitch = config.on ? 1 : 0;
        reply.uiPeriodMs = static_cast<uint32_t>(config.period.count());
        reply.uiLimitMs = static_cast<uint32_t>(config.limit.count());
        reply.uiCpuPercent = config.cpuPercent;
        reply.puiCpu = reply.Keep(config.cpus, reply.uiCpuNum);
        reply.pstThread = reply.Keep(std::move(threads), reply.uiThreadNum);
    });
}

} // namespace agent
