// The table of the processes, and who a process belongs to.
#include <algorithm>

#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/meaning/choices.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace tarnd {

namespace {

void Build(uint8_t options) {
    using namespace host::meaning::process_table;
    Daemon::Serving().processTable.Build((options & kWithoutKernel) == 0, (options & kAsTree) != 0);
}

uint64_t Ms(uint64_t ticks) {
    return ticks * 1000 / host::procfs::TicksPerSecond();
}

template <class Reply>
Tarn_sys_diag_ProcTableEntry Describe(const ProcessTable::Row &row, Reply &reply) {
    Tarn_sys_diag_ProcTableEntry entry{};
    entry.uiPid = row.process.id;
    entry.uiPpid = row.process.parent;
    entry.uiUid = row.user;
    host::CopyText(entry.szProcName, row.process.name);
    entry.ucState = static_cast<uint8_t>(row.process.state);
    entry.uiThreadNum = row.process.threadNum;
    entry.uiRss = static_cast<uint32_t>(std::min<uint64_t>(row.process.residentKb, UINT32_MAX));
    entry.ullStartTime = Ms(row.process.startTicks);
    entry.ullCpuTime = Ms(row.process.CpuTicks());
    entry.pcCmdLine = row.process.ofKernel ? nullptr : reply.Keep(row.commandLine);
    return entry;
}

} // namespace

} // namespace tarnd

uint32_t ProcTableBuild(const Tarn_sys_diag_ProcTableBuildInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::ProcTableBuild, request, replyCtx,
                              [&] { tarnd::Build(request->ucBuildFlag); });
}

uint32_t GetProcTable(const Tarn_sys_diag_GetProcTableInput *request, void *replyCtx) {
    return host::Answer(host::methods::GetProcTable, request, replyCtx, [](auto &reply) {
        const auto table = tarnd::Daemon::Serving().processTable.Built();
        std::vector<Tarn_sys_diag_ProcTableEntry> entries;
        for (const tarnd::ProcessTable::Row &row : *table) {
            entries.push_back(tarnd::Describe(row, reply));
        }
        reply.pstProc = reply.Keep(std::move(entries), reply.uiProcNum);
    });
}

uint32_t GetQ5ProcInfo(const Tarn_sys_diag_GetQ5ProcInfoInput *request, void *replyCtx) {
    return host::Answer(host::methods::GetQ5ProcInfo, request, replyCtx, [&](auto &reply) {
        const host::procfs::Task process = tarnd::Daemon::Serving().proc.ReadProcess(request->uiPid);
        auto &[parent, session] = reply.Members();
        parent = process.parent;
        session = process.session;
    });
}
