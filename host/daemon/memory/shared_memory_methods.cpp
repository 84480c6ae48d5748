// Memory that processes share.
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/daemon/memory/largest.h"
#include "host/daemon/memory/shared_memory.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

std::vector<Tarn_sys_diag_SysMemStatisShare> Describe(void *replyCtx) {
    const Daemon &daemon = Daemon::Serving();
    Largest<Tarn_sys_diag_SysMemStatisShare> records(TARND_SHARED_MAX,
                                                     [](const auto &record) { return record.uiValue3; });
    const auto add = [&](const SharedMemory &memory) {
        Tarn_sys_diag_SysMemStatisShare record{};
        record.uiValue1 = memory.id;
        record.uiValue2 = memory.kib;
        record.uiValue3 = memory.residentKib;
        record.uiValue4 = memory.processNum;
        host::CopyText(record.acName, memory.name);
        host::CopyText(record.acValue5, memory.kind);
        records.Add(record);
    };
    UserNames names;
    ForEachSegment(daemon.proc, names, add);
    ForEachSharedFile(
        daemon.proc, daemon.options.sharedMemoryDirectory, names, [&] { host::CheckWanted(replyCtx); }, add);
    return records.Take();
}

} // namespace

} // namespace tarnd

uint32_t GetSysMemStatisShare(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetSysMemStatisShare, request, replyCtx,
                        [&](auto &reply) { reply.pstShare = reply.Keep(tarnd::Describe(replyCtx), reply.uiShareNum); });
}
