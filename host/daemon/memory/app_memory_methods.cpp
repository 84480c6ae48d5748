// The memory of an application, as its agent tells it, as text for people.
#include "host/answer/answer.h"
#include "host/daemon/agents/relay.h"
#include "host/daemon/memory/memory_holders.h"
#include "host/daemon/processes/helper_time.h"
#include "host/stacks/readable.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace tarnd {

namespace {

std::string UnitsText(uint32_t pid, const Tarn_sys_diag_GetAppMemInfoInput &request, uint32_t timeoutMs) {
    const auto answer =
        Daemon::Serving().agentLine.Ask(TARND_AGENT_METHOD(TarnGetAppMemUnitInfo), pid, request, timeoutMs);
    answer->RequireResult(fmt::format("the agent of process {}", pid));
    const Tarn_sys_diag_GetAppMemUnitInfoOutput &units = answer->record;
    std::string text =
        fmt::format("{:>10} {:<32} {:>14} {:>14} {:>14}\n", "ID", "UNIT", "TOTAL bytes", "USED bytes", "PEAK bytes");
    for (uint32_t i = 0; i < units.uiUnitNum; ++i) {
        const Tarn_sys_diag_AppMemUnit &unit = units.pstUnit[i];
        text += fmt::format("{:>10} {:<32} {:>14} {:>14} {:>14}\n", unit.uiUnitId,
                            host::LineOfText(host::TextOf(unit.szUnitName)), unit.ullTotalBytes, unit.ullUsedBytes,
                            unit.ullPeakBytes);
        if (unit.uiUnitId == host::meaning::memory_unit::kMalloc) {
            text += fmt::format("{:>10} its peak is that of the whole process in memory\n", "");
        }
        for (uint32_t j = 0; j < unit.uiBlockClassNum; ++j) {
            const Tarn_sys_diag_MemBlockClass &one = unit.pstBlockClass[j];
            if (one.uiUsedNum != 0 || one.uiPeakNum != 0) {
                text += fmt::format("{:>10} blocks of {} bytes: {} used, {} free, {} at most\n", "", one.uiBlockSize,
                                    one.uiUsedNum, one.uiFreeNum, one.uiPeakNum);
            }
        }
    }
    return text;
}

std::string DetailsText(uint32_t pid, const Tarn_sys_diag_GetAppMemInfoInput &request, uint32_t timeoutMs) {
    const auto answer =
        Daemon::Serving().agentLine.Ask(TARND_AGENT_METHOD(TarnGetAppMemDetailOrModuleInfo), pid, request, timeoutMs);
    return {reinterpret_cast<const char *>(answer->record.pucInfo), answer->record.uiInfoLen};
}

std::string TextOf(const Tarn_sys_diag_AppMemInfoInput &request, void *replyCtx) {
    namespace app_memory = host::meaning::app_memory;
    const auto &[process, view] = request;
    const auto timeoutMs = [replyCtx] { return RelayTimeout(replyCtx); };
    Tarn_sys_diag_GetAppMemInfoInput query{};
    query.uiPid = kAgentsOwn;
    query.uiQueryType = view;
    if (view == app_memory::kUnits) {
        return UnitsText(process, query, timeoutMs());
    }
    const std::string text = view == app_memory::kHolders ? HoldersText(Daemon::Serving().agentLine, process, timeoutMs)
                                                          : DetailsText(process, query, timeoutMs());
    host::stacks::Demangler names(Daemon::Serving().helpers, HelperDeadline(replyCtx));
    return host::stacks::WithReadableNames(text, names);
}

} // namespace

} // namespace tarnd

uint32_t AppMemInfo(const Tarn_sys_diag_AppMemInfoInput *request, void *replyCtx) {
    return host::Answer(host::methods::AppMemInfo, request, replyCtx,
                        [&](auto &reply) { reply.szInfo = reply.Keep(tarnd::TextOf(*request, replyCtx)); });
}
