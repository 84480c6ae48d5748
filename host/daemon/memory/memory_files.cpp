#include "host/daemon/memory/memory_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <mntent.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <set>

#include "host/daemon/memory/kib.h"
#include "host/osal/descriptor.h"
#include "host/osal/error.h"

namespace tarnd {

namespace {

bool IsInMemory(const struct statfs &status) {
    const auto type = static_cast<uint32_t>(status.f_type);
    return type == TMPFS_MAGIC || type == RAMFS_MAGIC || type == HUGETLBFS_MAGIC;
}

// One way through the directories below one. Each is opened by its path from there, so that none stays open however
// deep they lie; no link is followed, and no other file system entered.
class Walk {
public:
    Walk(const std::string &directory, const host::Check &check, const TakeFile &take)
        : check_(check), take_(take), prefix_(directory.ends_with('/') ? directory : directory + "/"),
          root_(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}

    void Run() {
        if (!root_) {
            return;
        }
        device_ = root_.Status().st_dev;
        for (pending_.emplace_back(); !pending_.empty();) {
            const std::string path = std::move(pending_.back());
            pending_.pop_back();
            Read(path);
        }
    }

private:
    host::Descriptor Open(const std::string &path) const {
        open_how how{};
        how.flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
        how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;
        const char *const name = path.empty() ? "." : path.c_str();
        return host::Descriptor(static_cast<int>(syscall(SYS_openat2, root_.Fd(), name, &how, sizeof how)));
    }

    void Read(const std::string &path) {
        CheckNowAndThen();
        host::Descriptor directory = Open(path);
        const std::unique_ptr<DIR, int (*)(DIR *)> stream(directory ? fdopendir(directory.Fd()) : nullptr, closedir);
        if (stream == nullptr) {
            return;
        }
        const int fd = directory.Release(); // the stream has it
        const std::string prefix = path.empty() ? "" : path + "/";
        while (const dirent *const entry = readdir(stream.get())) {
            CheckNowAndThen();
            const std::string_view name = entry->d_name;
            struct stat status {};
            if (name != "." && name != ".." && fstatat(fd, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
                Take(prefix + entry->d_name, status);
            }
        }
    }

    void Take(std::string path, const struct stat &status) {
        if (S_ISDIR(status.st_mode)) {
            pending_.push_back(std::move(path));
        } else if (S_ISREG(status.st_mode) && status.st_dev == device_ &&
                   (status.st_nlink == 1 || named_.insert(status.st_ino).second)) {
            take_(prefix_ + path, status);
        }
    }

    void CheckNowAndThen() {
        constexpr uint32_t kEntries = 64;
        if (entries_++ % kEntries == 0) {
            check_();
        }
    }

    const host::Check &check_;
    const TakeFile &take_;
    const std::string prefix_;
    const host::Descriptor root_;
    dev_t device_ = 0;
    uint32_t entries_ = 0;
    std::vector<std::string> pending_; // directories, from the root
    std::set<ino_t> named_;            // those of several names that were handed over
};

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

void ForEachFile(const std::string &directory, const host::Check &check, const TakeFile &take) {
    Walk(directory, check, take).Run();
}

uint32_t TakenKib(const struct stat &status) {
    return KibOfBytes(static_cast<uint64_t>(status.st_blocks) * 512);
}

} // namespace tarnd
