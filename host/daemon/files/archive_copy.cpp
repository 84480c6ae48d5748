// Copies of log archives to the directories that the command line names. Nothing outside of them is written, and
// nothing outside the log directory read.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "host/answer/answer.h"
#include "host/daemon/agents/state.h"
#include "host/daemon/files/archive.h"
#include "host/osal/log.h"
#include "host/store/files.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

using host::Descriptor;
using host::Fail;

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

const std::string &TargetDirectory(std::string_view name) {
    const std::map<std::string, std::string> &targets = TheSettings().copyTargets;
    const auto found = targets.find(std::string(name));
    if (found == targets.end()) {
        std::string known;
        for (const auto &[target, directory] : targets) {
            known += (known.empty() ? "" : ", ") + target;
        }
        throw host::BadValue("szCopyTarget", fmt::format("\"{}\"", name),
                             known.empty() ? "a target of --copy-target, of which there is none" : "one of " + known);
    }
    return found->second;
}

bool IsSaid(std::string_view value, const char *member, std::string_view word) {
    if (!value.empty() && value != word) {
        throw host::BadValue(member, fmt::format("\"{}\"", value), fmt::format("empty or \"{}\"", word));
    }
    return !value.empty();
}

// Every ZIP archive begins with the mark of a file's header or, if it is empty, of the directory's end.
void CheckArchive(const Descriptor &source, const std::string &name) {
    char mark[4]{};
    const bool regular = S_ISREG(source.Status().st_mode);
    const std::string_view text(
        mark, static_cast<size_t>(std::max<ssize_t>(0, regular ? pread(source.Fd(), mark, sizeof mark, 0) : 0)));
    if (text != std::string_view("PK\3\4") && text != std::string_view("PK\5\6")) {
        throw host::BadValue("szSrcPath", fmt::format("\"{}\"", name), "a ZIP archive");
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

void Copy(const Tarn_sys_diag_CopyloginfoInput &request, void *replyCtx) {
    const std::string &target = TargetDirectory(host::TextOf(request.szCopyTarget));
    const bool replace = IsSaid(host::TextOf(request.szCopyParam1), "szCopyParam1", TARND_COPY_REPLACE);
    const bool move = IsSaid(host::TextOf(request.szCopyParam2), "szCopyParam2", TARND_COPY_MOVE);

    const std::string &logs = TheSettings().logDirectory;
    std::vector<std::string> names = host::NamesBeneath(logs, host::TextOf(request.szSrcPath));
    if (names.empty()) {
        throw host::BadValue("szSrcPath", "the log directory", "an archive in it");
    }
    const Place from = PlaceOf(std::move(names));
    const Descriptor fromDirectory = host::OpenBeneath(logs, from.directory);
    const Descriptor source = host::OpenIn(fromDirectory, from.name);
    CheckArchive(source, from.name);

    const Place to = PlaceInTarget(target, host::TextOf(request.szDstPath), from.name);
    const Descriptor toDirectory = host::OpenBeneath(target, to.directory);
    Progress progress(fmt::format("copy of {} as {} in {}", from.name, to.name, target), replyCtx);
    host::FileAside copy(toDirectory, to.name, 0640);
    CopyBytes(source, copy.File(), from.name, progress);
    copy.Commit(replace ? host::FileAside::Older::kReplace : host::FileAside::Older::kKeep);
    progress.Done();
    if (move) {
        RemoveSource(fromDirectory, from.name, source);
    }
}

} // namespace

} // namespace tarnd

uint32_t CopyZipLogFile(const Tarn_sys_diag_CopyloginfoInput *request, void *replyCtx) {
    return host::AnswerResult(__func__, replyCtx, [&] { tarnd::Copy(*request, replyCtx); });
}
