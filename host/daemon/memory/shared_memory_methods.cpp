// Memory that processes share.
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/daemon/memory/largest.h"
#include "host/daemon/memory/shared_memory.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace tarnd {

namespace {

std::vector<Tarn_sys_diag_SysMemStatisShare> Describe(void *replyCtx) {
    const Daemon &daemon = Daemon::Serving();
    Largest<Tarn_sys_diag_SysMemStatisShare> records(host::meaning::shared_memory::kMost);
    const auto add = [&](const SharedMemory &memory) {
        Tarn_sys_diag_SysMemStatisShare record{};
        auto &[id, size, resident, users, name, kind] = record;
        id = memory.id;
        size = memory.kib;
        resident = memory.residentKib;
        users = memory.processNum;
        host::CopyText(name, memory.name);
        host::CopyText(kind, memory.kind);
        records.Add(resident, record);
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
