#include "host/daemon/memory/shared_memory.h"

#include <sys/shm.h>
#include <sys/sysmacros.h>

#include <map>
#include <set>
#include <sstream>

#include "host/daemon/memory/kib.h"
#include "host/daemon/memory/memory_files.h"
#include "host/osal/error.h"
#include "host/procfs/memory.h"

namespace tarnd {

namespace {

constexpr char kSegments[] = "sysvipc/shm";

// A kernel without System V memory has no table of it.
std::string SegmentTable(const host::procfs::Procfs &proc) {
    try {
        return proc.Read(kSegments);
    } catch (const std::system_error &error) {
        if (error.code().value() == ENOENT) {
            return {};
        }
        throw;
    }
}

SharedMemory ParseSegment(const std::string &table, const std::string &line, UserNames &names) {
    std::istringstream fields(line);
    int64_t key = 0, id = 0, creator = 0, last = 0;
    uint64_t bytes = 0, times[3], residentBytes = 0, swapBytes = 0;
    uint32_t mode = 0, attached = 0, uid = 0, gid = 0, creatorUid = 0, creatorGid = 0;
    fields >> key >> id >> std::oct >> mode >> std::dec >> bytes >> creator >> last >> attached >> uid >> gid >>
        creatorUid >> creatorGid >> times[0] >> times[1] >> times[2] >> residentBytes >> swapBytes;
    if (fields.fail()) {
        host::Fail(EPROTO, table + ": " + line);
    }
    return {static_cast<uint32_t>(id),
            KibOfBytes(bytes),
            KibOfBytes(residentBytes),
            attached,
            fmt::format("key {:#010x}", static_cast<uint32_t>(key)),
            fmt::format("sysv {:04o} {}{}", mode & 0777, names.User(uid), (mode & SHM_DEST) != 0 ? " removed" : "")};
}

// How many processes map each file, by device and inode as /proc has them.
std::map<std::string, uint32_t> MappingProcesses(const host::procfs::Procfs &proc, const host::Check &check) {
    std::map<std::string, uint32_t> processes;
    for (const uint32_t pid : proc.ProcessIds()) {
        check();
        std::set<std::string> files;
        host::procfs::SkipHidden([&] {
            host::procfs::ReadMappedRanges(proc, pid, [&](const host::procfs::Mapping &mapping) {
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

std::string NameInMaps(const struct stat &status) {
    return fmt::format("{:02x}:{:02x} {}", major(status.st_dev), minor(status.st_dev), status.st_ino);
}

} // namespace

void ForEachSegment(const host::procfs::Procfs &proc, UserNames &names, const TakeSharedMemory &take) {
    std::istringstream lines(SegmentTable(proc));
    std::string line;
    std::getline(lines, line); // the head
    while (std::getline(lines, line)) {
        take(ParseSegment(proc.Path(kSegments), line, names));
    }
}

void ForEachSharedFile(const host::procfs::Procfs &proc, const std::string &directory, UserNames &names,
                       const host::Check &check, const TakeSharedMemory &take) {
    std::map<std::string, uint32_t> processes;
    ForEachFile(directory, check, [&](const std::string &path, const struct stat &status) {
        if (processes.empty()) {
            processes = MappingProcesses(proc, check); // dear, and most systems have no such file
        }
        const auto mapped = processes.find(NameInMaps(status));
        take({static_cast<uint32_t>(status.st_ino), KibOfBytes(static_cast<uint64_t>(status.st_size)), TakenKib(status),
              mapped != processes.end() ? mapped->second : 0, path.substr(directory.size()),
              fmt::format("posix {:04o} {}", status.st_mode & 07777, names.User(status.st_uid))});
    });
}

} // namespace tarnd
