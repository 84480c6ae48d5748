// Files that have no place but memory.
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/daemon/memory/kib.h"
#include "host/daemon/memory/largest.h"
#include "host/daemon/memory/memory_files.h"
#include "host/daemon/processes/users.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

// The end of a path tells more than its start.
std::string_view Tail(std::string_view path, size_t most) {
    return path.substr(path.size() - std::min(path.size(), most));
}

Tarn_sys_diag_SysOsMemFile Describe(const std::string &path, const struct stat &status, UserNames &names) {
    Tarn_sys_diag_SysOsMemFile record{};
    host::CopyText(record.acValue1,
                   Daemon::Serving().clock.Text(std::chrono::system_clock::from_time_t(status.st_mtime)));
    host::CopyText(record.acValue2, names.User(status.st_uid) + ":" + names.Group(status.st_gid));
    host::CopyText(record.acValue3, ModeText(status.st_mode));
    host::CopyText(record.acFileName, Tail(path, sizeof record.acFileName - 1));
    record.uiValue4 = TakenKib(status);
    return record;
}

void ListFiles(uint32_t leastKib, void *replyCtx, host::Reply<Tarn_sys_diag_SysOsMemFileResult> &reply) {
    const std::vector<MemoryFileSystem> fileSystems = MemoryFileSystems(Daemon::Serving().proc);
    uint64_t takenBytes = 0;
    for (const MemoryFileSystem &fileSystem : fileSystems) {
        takenBytes += fileSystem.takenBytes;
    }
    reply.uiValue1 = KibOfBytes(takenBytes);
    UserNames names;
    Largest<Tarn_sys_diag_SysOsMemFile> records(TARND_FILES_MAX, [](const auto &record) { return record.uiValue4; });
    for (const MemoryFileSystem &fileSystem : fileSystems) {
        ForEachFile(fileSystem.directory, [&](const std::string &path, const struct stat &status) {
            host::CheckWanted(replyCtx);
            if (TakenKib(status) >= leastKib) {
                records.Add(Describe(path, status, names));
            }
        });
    }
    reply.pstFile = reply.Keep(records.Take(), reply.uiFileNum);
}

} // namespace

} // namespace tarnd

uint32_t GetSysOsMemFileList(const Tarn_sys_diag_SysOsMemFileInput *request, void *replyCtx) {
    return host::Answer(host::methods::GetSysOsMemFileList, request, replyCtx,
                        [&](auto &reply) { tarnd::ListFiles(request->uiValue1, replyCtx, reply); });
}
