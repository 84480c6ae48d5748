// Files that have no place but memory.
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/daemon/memory/kib.h"
#include "host/daemon/memory/largest.h"
#include "host/daemon/memory/memory_files.h"
#include "host/daemon/processes/users.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace tarnd {

namespace {

// The end of a path tells more than its start.
std::string_view Tail(std::string_view path, size_t most) {
    return path.substr(path.size() - std::min(path.size(), most));
}

Tarn_sys_diag_SysOsMemFile Describe(const std::string &name, const struct stat &status, UserNames &names) {
    Tarn_sys_diag_SysOsMemFile record{};
    auto &[changed, owner, permissions, path, taken] = record;
    const host::WallTime when = host::NearestWallTime(std::chrono::seconds(status.st_mtime));
    host::CopyText(changed, Daemon::Serving().clock.TextWithoutZone(when));
    host::CopyText(owner, names.User(status.st_uid) + ":" + names.Group(status.st_gid));
    host::CopyText(permissions, ModeText(status.st_mode));
    host::CopyText(path, Tail(name, sizeof path - 1));
    taken = TakenKib(status);
    return record;
}

void ListFiles(uint32_t least, void *replyCtx, host::Reply<Tarn_sys_diag_SysOsMemFileResult> &reply) {
    const std::vector<MemoryFileSystem> fileSystems = MemoryFileSystems(Daemon::Serving().proc);
    auto &[fileNum, files, taken] = reply.Members();
    uint64_t takenBytes = 0;
    for (const MemoryFileSystem &fileSystem : fileSystems) {
        takenBytes += fileSystem.takenBytes;
    }
    taken = KibOfBytes(takenBytes);
    UserNames names;
    Largest<Tarn_sys_diag_SysOsMemFile> records(host::meaning::memory_files::kMost);
    for (const MemoryFileSystem &fileSystem : fileSystems) {
        const auto check = [&] { host::CheckWanted(replyCtx); };
        ForEachFile(fileSystem.directory, check, [&](const std::string &path, const struct stat &status) {
            if (const uint32_t size = TakenKib(status); size >= least) {
                records.Add(size, Describe(path, status, names));
            }
        });
    }
    files = reply.Keep(records.Take(), fileNum);
}

} // namespace

} // namespace tarnd

uint32_t GetSysOsMemFileList(const Tarn_sys_diag_SysOsMemFileInput *request, void *replyCtx) {
    return host::Answer(host::methods::GetSysOsMemFileList, request, replyCtx, [&](auto &reply) {
        const auto &[least] = *request;
        tarnd::ListFiles(least, replyCtx, reply);
    });
}
