#include "host/daemon/memory/memory_files.h"

#include <fts.h>
#include <linux/magic.h>
#include <mntent.h>
#include <sys/vfs.h>

#include <cstdio>
#include <memory>
#include <set>

#include "host/daemon/memory/kib.h"
#include "host/osal/error.h"

namespace tarnd {

namespace {

bool IsInMemory(const struct statfs &status) {
    const auto type = static_cast<uint32_t>(status.f_type);
    return type == TMPFS_MAGIC || type == RAMFS_MAGIC || type == HUGETLBFS_MAGIC;
}

} // namespace

std::vector<MemoryFileSystem> MemoryFileSystems(const host::procfs::Procfs &proc) {
    const std::string table = proc.Path("self/mounts");
    const std::unique_ptr<FILE, int (*)(FILE *)> mounts(setmntent(table.c_str(), "re"), endmntent);
    if (mounts == nullptr) {
        host::Fail(errno, table);
    }
    std::vector<MemoryFileSystem> found;
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

void ForEachFile(const std::string &directory, const TakeFile &take) {
    std::string root = directory;
    char *const roots[] = {root.data(), nullptr};
    const std::unique_ptr<FTS, int (*)(FTS *)> walk(
        fts_open(roots, FTS_PHYSICAL | FTS_COMFOLLOW | FTS_XDEV | FTS_NOCHDIR, nullptr), fts_close);
    if (walk == nullptr) {
        host::Fail(errno, directory);
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
