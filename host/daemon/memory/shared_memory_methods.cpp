// Memory that processes share by a key or a name: System V segments and the files of /dev/shm.
#include <sys/shm.h>
#include <sys/sysmacros.h>

#include <map>
#include <set>
#include <sstream>

#include "host/answer/answer.h"
#include "host/daemon/memory/kib.h"
#include "host/daemon/memory/memory_files.h"
#include "host/daemon/processes/users.h"
#include "host/procfs/memory.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

using Records = Largest<Tarn_sys_diag_SysMemStatisShare>;

constexpr char kPosixDirectory[] = "/dev/shm";

// A kernel without System V memory has no table of it.
std::string SegmentTable() {
    try {
        return host::procfs::Procfs().Read("sysvipc/shm");
    } catch (const std::system_error &error) {
        if (error.code().value() == ENOENT) {
            return {};
        }
        throw;
    }
}

void AddSegments(UserNames &names, Records &records) {
    std::istringstream lines(SegmentTable());
    std::string line;
    std::getline(lines, line); // the head
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        int64_t key = 0, id = 0, creator = 0, last = 0;
        uint64_t bytes = 0, times[3], residentBytes = 0, swapBytes = 0;
        uint32_t mode = 0, attached = 0, uid = 0, gid = 0, creatorUid = 0, creatorGid = 0;
        fields >> key >> id >> std::oct >> mode >> std::dec >> bytes >> creator >> last >> attached >> uid >> gid >>
            creatorUid >> creatorGid >> times[0] >> times[1] >> times[2] >> residentBytes >> swapBytes;
        if (fields.fail()) {
            throw std::system_error(EPROTO, std::generic_category(), "/proc/sysvipc/shm: " + line);
        }
        Tarn_sys_diag_SysMemStatisShare record{};
        record.uiValue1 = static_cast<uint32_t>(id);
        record.uiValue2 = KibOfBytes(bytes);
        record.uiValue3 = KibOfBytes(residentBytes);
        record.uiValue4 = attached;
        host::CopyText(record.acName, fmt::format("key {:#010x}", static_cast<uint32_t>(key)));
        host::CopyText(record.acValue5, fmt::format("sysv {:04o} {}{}", mode & 0777, names.User(uid),
                                                    (mode & SHM_DEST) != 0 ? " removed" : ""));
        records.Add(record);
    }
}

// How many processes map each file, by device and inode as /proc has them.
std::map<std::string, uint32_t> MappingProcesses(void *replyCtx) {
    std::map<std::string, uint32_t> processes;
    for (const uint32_t pid : host::procfs::Procfs().ProcessIds()) {
        host::CheckWanted(replyCtx);
        std::set<std::string> files;
        host::procfs::SkipHidden([&] {
            host::procfs::ReadMappedRanges(host::procfs::Procfs(), pid, [&](const host::procfs::Mapping &mapping) {
                if (mapping.inode != 0) {
                    files.insert(fmt::format("{} {}", mapping.device, mapping.inode));
                }
            });
            for (const std::string &file : files) {
                ++processes[file];
            }
        });
    }
    return processes;
}

void AddFiles(UserNames &names, void *replyCtx, Records &records) {
    std::map<std::string, uint32_t> processes;
    ForEachFile(kPosixDirectory, [&](const std::string &path, const struct stat &status) {
        if (processes.empty()) {
            processes = MappingProcesses(replyCtx); // dear, and most systems have no such file
        }
        const std::string file =
            fmt::format("{:02x}:{:02x} {}", major(status.st_dev), minor(status.st_dev), status.st_ino);
        const auto mapped = processes.find(file);
        Tarn_sys_diag_SysMemStatisShare record{};
        record.uiValue1 = static_cast<uint32_t>(status.st_ino);
        record.uiValue2 = KibOfBytes(static_cast<uint64_t>(status.st_size));
        record.uiValue3 = TakenKib(status);
        record.uiValue4 = mapped != processes.end() ? mapped->second : 0;
        host::CopyText(record.acName, std::string_view(path).substr(sizeof kPosixDirectory - 1));
        host::CopyText(record.acValue5,
                       fmt::format("posix {:04o} {}", status.st_mode & 07777, names.User(status.st_uid)));
        records.Add(record);
    });
}

std::vector<Tarn_sys_diag_SysMemStatisShare> SharedMemory(void *replyCtx) {
    UserNames names;
    Records records(TARND_SHARED_MAX, [](const auto &record) { return record.uiValue3; });
    AddSegments(names, records);
    AddFiles(names, replyCtx, records);
    return records.Take();
}

} // namespace

} // namespace tarnd

uint32_t GetSysMemStatisShare(const Tarn_sys_diag_None *, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_SysMemStatisShareResult>(__func__, replyCtx, [&](auto &reply) {
        reply.pstShare = reply.Keep(tarnd::SharedMemory(replyCtx), reply.uiShareNum);
    });
}
