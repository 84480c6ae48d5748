#include "host/daemon/memory/memory_files.h"

#include <fts.h>
#include <linux/magic.h>
#include <mntent.h>
#include <sys/vfs.h>

#include <set>

#include "host/answer/answer.h"
#include "host/daemon/memory/kib.h"
#include "host/daemon/processes/users.h"
#include "host/daemon/time/text.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

struct FileSystem {
    std::string directory;
    uint64_t takenBytes = 0;
};

bool IsInMemory(const struct statfs &status) {
    const auto type = static_cast<uint32_t>(status.f_type);
    return type == TMPFS_MAGIC || type == RAMFS_MAGIC || type == HUGETLBFS_MAGIC;
}

// Those that can be reached, each once: one may be mounted in several places, and be covered by another.
std::vector<FileSystem> MemoryFileSystems() {
    const char *const table = "/proc/self/mounts";
    const std::unique_ptr<FILE, int (*)(FILE *)> mounts(setmntent(table, "re"), endmntent);
    if (mounts == nullptr) {
        throw std::system_error(errno, std::generic_category(), table);
    }
    std::vector<FileSystem> found;
    std::set<dev_t> devices;
    mntent entry;
    char text[8192];
    while (getmntent_r(mounts.get(), &entry, text, sizeof text) != nullptr) {
        const std::string type = entry.mnt_type;
        if (type != "tmpfs" && type != "ramfs" && type != "hugetlbfs") {
            continue; // what is asked about a file system of the network may take forever
        }
        struct stat root;
        struct statfs use;
        if (stat(entry.mnt_dir, &root) == 0 && statfs(entry.mnt_dir, &use) == 0 && IsInMemory(use) &&
            devices.insert(root.st_dev).second) {
            const auto taken = static_cast<uint64_t>(use.f_blocks - use.f_bfree);
            found.push_back({entry.mnt_dir, taken * static_cast<uint64_t>(use.f_bsize)});
        }
    }
    return found;
}

// "-rw-r--r--"
std::string ModeText(mode_t mode) {
    std::string text = "-rwxrwxrwx";
    for (size_t i = 1; i < text.size(); ++i) {
        if ((mode & (0400U >> (i - 1))) == 0) {
            text[i] = '-';
        }
    }
    const auto special = [&](mode_t bit, size_t at, char letter) {
        if ((mode & bit) != 0) {
            text[at] = text[at] == 'x' ? letter : static_cast<char>(letter - 'a' + 'A');
        }
    };
    special(S_ISUID, 3, 's');
    special(S_ISGID, 6, 's');
    special(S_ISVTX, 9, 't');
    return text;
}

// The end of a path tells more than its start.
std::string_view Tail(std::string_view path, size_t most) {
    return path.substr(path.size() - std::min(path.size(), most));
}

Tarn_sys_diag_SysOsMemFile Describe(const std::string &path, const struct stat &status, UserNames &names) {
    Tarn_sys_diag_SysOsMemFile record{};
    host::CopyText(record.acValue1, TimeText(status.st_mtime));
    host::CopyText(record.acValue2, names.User(status.st_uid) + ":" + names.Group(status.st_gid));
    host::CopyText(record.acValue3, ModeText(status.st_mode));
    host::CopyText(record.acFileName, Tail(path, sizeof record.acFileName - 1));
    record.uiValue4 = TakenKib(status);
    return record;
}

void ListFiles(uint32_t leastKib, void *replyCtx, host::Reply<Tarn_sys_diag_SysOsMemFileResult> &reply) {
    const std::vector<FileSystem> fileSystems = MemoryFileSystems();
    uint64_t takenBytes = 0;
    for (const FileSystem &fileSystem : fileSystems) {
        takenBytes += fileSystem.takenBytes;
    }
    reply.uiValue1 = KibOfBytes(takenBytes);
    UserNames names;
    Largest<Tarn_sys_diag_SysOsMemFile> records(TARND_FILES_MAX, [](const auto &record) { return record.uiValue4; });
    for (const FileSystem &fileSystem : fileSystems) {
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

void ForEachFile(const std::string &directory, const TakeFile &take) {
    std::string root = directory;
    char *const roots[] = {root.data(), nullptr};
    const std::unique_ptr<FTS, int (*)(FTS *)> walk(
        fts_open(roots, FTS_PHYSICAL | FTS_COMFOLLOW | FTS_XDEV | FTS_NOCHDIR, nullptr), fts_close);
    if (walk == nullptr) {
        throw std::system_error(errno, std::generic_category(), directory);
    }
    std::set<ino_t> named; // those of several names that were handed over
    while (const FTSENT *entry = fts_read(walk.get())) {
        const struct stat &status = *entry->fts_statp;
        if (entry->fts_info == FTS_F && S_ISREG(status.st_mode) && status.st_dev == entry->fts_parent->fts_dev &&
            (status.st_nlink == 1 || named.insert(status.st_ino).second)) {
            take(entry->fts_path, status);
        }
    }
}

uint32_t TakenKib(const struct stat &status) {
    return KibOfBytes(static_cast<uint64_t>(status.st_blocks) * 512);
}

} // namespace tarnd

uint32_t GetSysOsMemFileList(const Tarn_sys_diag_SysOsMemFileInput *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_SysOsMemFileResult>(
        __func__, replyCtx, [&](auto &reply) { tarnd::ListFiles(request->uiValue1, replyCtx, reply); });
}
