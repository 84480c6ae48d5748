// The files that processes map.
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/daemon/memory/kib.h"
#include "host/daemon/memory/largest.h"
#include "host/daemon/memory/mapped_files.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace tarnd {

namespace {

std::vector<Tarn_sys_diag_SysMemStatisFile> Describe(const std::map<MappedFile, MappedFileUse> &uses) {
    Largest<Tarn_sys_diag_SysMemStatisFile> records(host::meaning::memory_files::kMost);
    for (const auto &[file, use] : uses) {
        Tarn_sys_diag_SysMemStatisFile record{};
        auto &[path, resident, mappedBy, largestUser, deviceInode] = record;
        host::CopyText(path, file.name);
        resident = Kib(use.kib);
        mappedBy = use.processNum;
        host::CopyText(largestUser, use.largestProcess);
        host::CopyText(deviceInode, fmt::format("{} {}", file.device, file.inode));
        records.Add(use.kib, record);
    }
    return records.Take();
}

} // namespace

} // namespace tarnd

uint32_t GetSysMemStatisFile(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetSysMemStatisFile, request, replyCtx, [&](auto &reply) {
        const auto files = tarnd::MappedFiles(tarnd::Daemon::Serving().proc, [&] { host::CheckWanted(replyCtx); });
        reply.pstFile = reply.Keep(tarnd::Describe(files), reply.uiFileNum);
    });
}
