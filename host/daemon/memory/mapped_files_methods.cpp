// The files that processes map.
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/daemon/memory/kib.h"
#include "host/daemon/memory/largest.h"
#include "host/daemon/memory/mapped_files.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

std::vector<Tarn_sys_diag_SysMemStatisFile> Describe(const std::map<MappedFile, MappedFileUse> &uses) {
    Largest<Tarn_sys_diag_SysMemStatisFile> records(TARND_FILES_MAX,
                                                    [](const auto &record) { return record.uiValue1; });
    for (const auto &[file, use] : uses) {
        Tarn_sys_diag_SysMemStatisFile record{};
        host::CopyText(record.acFileName, file.name);
        record.uiValue1 = Kib(use.kib);
        record.uiValue2 = use.processNum;
        host::CopyText(record.acValue3, use.largestProcess);
        host::CopyText(record.acValue4, fmt::format("{} {}", file.device, file.inode));
        records.Add(record);
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
