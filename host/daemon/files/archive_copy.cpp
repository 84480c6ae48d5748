// Copies of log archives.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
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

// The name may stand for another file by now, the copy itself included: that one stays.
void RemoveSource(const Descriptor &directory, const std::string &name, const Descriptor &source) {
    struct stat now {};
    if (fstatat(directory.Fd(), name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 && host::SameFile(now, source.Status()) &&
        unlinkat(directory.Fd(), name.c_str(), 0) != 0) {
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
    host::FileAside copy(toDirectory, to.name, 0640);
    CopyBytes(source, copy.File(), from.name, progress);
    copy.Commit(copying.replace ? host::FileAside::Older::kReplace : host::FileAside::Older::kKeep);
    progress.Done();
    if (copying.move) {
        RemoveSource(fromDirectory, from.name, source);
    }
}

} // namespace tarnd
