// Copies of log archives.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "host/daemon/files/archives.h"
#include "host/daemon/files/progress.h"
#include "host/meaning/check.h"
#include "host/meaning/methods.h"
#include "host/osal/error.h"
#include "host/store/files.h"

namespace tarnd {

namespace {

using host::Descriptor;
using host::Fail;
using host::meaning::BadMember;

constexpr const auto &kMethod = host::methods::CopyZipLogFile;

// A file, and the directory that it is in.
struct Place {
    std::vector<std::string> directory;
    std::string name;
};

Place PlaceOf(std::vector<std::string> names) {
    Place place;
    place.name = std::move(names.back());
    names.pop_back();
    place.directory = std::move(names);
    return place;
}

// Every ZIP archive begins with the mark of a file's header or, if it is empty, of the directory's end.
void CheckArchive(const Descriptor &source, const std::string &name) {
    char mark[4]{};
    const bool regular = S_ISREG(source.Status().st_mode);
    const std::string_view text(
        mark, static_cast<size_t>(std::max<ssize_t>(0, regular ? pread(source.Fd(), mark, sizeof mark, 0) : 0)));
    if (text != std::string_view("PK\3\4") && text != std::string_view("PK\5\6")) {
        throw BadMember(kMethod, "archive", name, "a ZIP archive");
    }
}

void CopyBytes(const Descriptor &from, const Descriptor &to, const std::string &name, Progress &progress) {
    std::vector<char> buffer(1U << 18);
    for (ssize_t length = 1; length != 0;) {
        length = read(from.Fd(), buffer.data(), buffer.size());
        if (length < 0) {
            Fail(errno, name);
        }
        host::WriteAll(to, {buffer.data(), static_cast<size_t>(length)}, name);
        progress.Add(static_cast<uint64_t>(length));
    }
    progress.AddFile();
}

// A directory in another, for a moment and for nobody else.
class PrivateDirectory {
public:
    explicit PrivateDirectory(const Descriptor &in) : in_(in), name_(host::AsideName("move")) {
        if (mkdirat(in.Fd(), name_.c_str(), 0700) != 0) {
            Fail(errno, name_);
        }
        opened_ = {openat(in.Fd(), name_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC), name_};
        if (opened_.Status().st_uid != geteuid()) {
            Fail(EACCES, name_ + " was replaced");
        }
    }
    ~PrivateDirectory() { unlinkat(in_.Fd(), name_.c_str(), AT_REMOVEDIR); }
    PrivateDirectory(const PrivateDirectory &) = delete;
    PrivateDirectory &operator=(const PrivateDirectory &) = delete;

    const Descriptor &Opened() const { return opened_; }

private:
    const Descriptor &in_;
    const std::string name_;
    Descriptor opened_;
};

// Another file that was taken from its name gets it back; where that is taken by now, one beside it.
void PutBack(const Descriptor &from, const Descriptor &to, const std::string &name) {
    for (int i = 0; i != 100; ++i) {
        const std::string free = i == 0 ? name : fmt::format("{}.{}", name, i);
        if (renameat2(from.Fd(), name.c_str(), to.Fd(), free.c_str(), RENAME_NOREPLACE) == 0) {
            return;
        }
    }
    Fail(errno, name + ", which is not the file that was copied, can't be put back");
}

// The name may stand for another file by now, the copy itself included: that one stays. It is looked at where nobody
// can put another in its place.
void RemoveSource(const Descriptor &directory, const std::string &name, const Descriptor &source) {
    const PrivateDirectory aside(directory);
    if (renameat(directory.Fd(), name.c_str(), aside.Opened().Fd(), name.c_str()) != 0) {
        if (errno == ENOENT) {
            return;
        }
        Fail(errno, name + ", which was copied, can't be removed");
    }
    struct stat now {};
    if (fstatat(aside.Opened().Fd(), name.c_str(), &now, AT_SYMLINK_NOFOLLOW) != 0) {
        Fail(errno, name);
    }
    if (!host::SameFile(now, source.Status())) {
        PutBack(aside.Opened(), directory, name);
    } else if (unlinkat(aside.Opened().Fd(), name.c_str(), 0) != 0) {
        Fail(errno, name + ", which was copied, can't be removed");
    }
}

// The place within the target: of the source's name where only a directory is said.
Place PlaceInTarget(const std::string &root, std::string_view path, const std::string &sourceName) {
    std::vector<std::string> names = host::NamesBeneath(root, path);
    if (names.empty() || path.ends_with('/')) {
        names.push_back(sourceName);
    }
    return PlaceOf(std::move(names));
}

} // namespace

const std::string &Archives::TargetDirectory(std::string_view name) const {
    const auto found = copyTargets_.find(std::string(name));
    if (found == copyTargets_.end()) {
        std::string known;
        for (const auto &[target, directory] : copyTargets_) {
            known += (known.empty() ? "" : ", ") + target;
        }
        throw BadMember(kMethod, "target", name,
                        known.empty() ? "a target of --copy-target, of which there is none" : "one of " + known);
    }
    return found->second;
}

void Archives::Copy(const Copying &copying, const host::Check &check) const {
    const std::string &target = TargetDirectory(copying.target);
    std::vector<std::string> names = host::NamesBeneath(logDirectory_, copying.source);
    if (names.empty()) {
        throw BadMember(kMethod, "archive", copying.source,
                        "an archive in the log directory, not the directory itself");
    }
    const Place from = PlaceOf(std::move(names));
    const Descriptor fromDirectory = host::OpenBeneath(logDirectory_, from.directory);
    const Descriptor source = host::OpenIn(fromDirectory, from.name);
    CheckArchive(source, from.name);

    const Place to = PlaceInTarget(target, copying.destination, from.name);
    const Descriptor toDirectory = host::OpenBeneath(target, to.directory);
    Progress progress(fmt::format("copy of {} as {} in {}", from.name, to.name, target), clocks_, check);
    host::RemoveAbandoned(toDirectory);
    host::FileAside copy(toDirectory, to.name, 0640);
    CopyBytes(source, copy.File(), from.name, progress);
    copy.Commit(copying.replace ? host::FileAside::Older::kReplace : host::FileAside::Older::kKeep);
    progress.Done();
    if (copying.move) {
        RemoveSource(fromDirectory, from.name, source);
    }
}

} // namespace tarnd
