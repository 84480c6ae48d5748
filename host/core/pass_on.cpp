#include "host/core/pass_on.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "host/core/acting.h"
#include "host/osal/descriptor.h"

namespace core {

namespace {

// False where nobody takes them any more.
bool Write(int to, std::span<const uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t written = write(to, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) {
            return false;
        }
        bytes = bytes.subspan(static_cast<size_t>(std::max<ssize_t>(written, 0)));
    }
    return true;
}

void Copy(const CoreHead &head, int rest, int to, uint64_t limit) {
    std::vector<uint8_t> buffer(1U << 20);
    const auto take = [&](std::span<const uint8_t> bytes) {
        bytes = bytes.first(static_cast<size_t>(std::min<uint64_t>(bytes.size(), limit)));
        limit -= bytes.size();
        return Write(to, bytes) && limit > 0;
    };
    bool goesOn = take(head.bytes);
    while (goesOn) {
        const ssize_t got = read(rest, buffer.data(), buffer.size());
        goesOn = got > 0 ? take(std::span(buffer).first(static_cast<size_t>(got))) : got < 0 && errno == EINTR;
    }
}

void PassToProgram(std::vector<std::string> words, const CoreHead &head, int rest) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        host::Fail(errno, "a pipe");
    }
    host::Descriptor theirs(ends[0]);
    host::Descriptor ours(ends[1]);
    std::vector<char *> arguments;
    for (std::string &word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    char *environment[] = {nullptr};
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, theirs.Fd(), STDIN_FILENO);
    pid_t pid = -1;
    const int error = posix_spawn(&pid, words[0].c_str(), &files, nullptr, arguments.data(), environment);
    posix_spawn_file_actions_destroy(&files);
    if (error != 0) {
        host::Fail(error, words[0]);
    }
    theirs = host::Descriptor();
    Copy(head, rest, ours.Fd(), UINT64_MAX);
    ours = host::Descriptor();
    waitpid(pid, nullptr, 0);
}

// In the directory that a pattern means: from the process's root on, or from where it works; no link leads out of
// either. What has the name gives way, as the kernel has it.
host::Descriptor NewFile(const std::filesystem::path &file, const Crash &crash) {
    const std::string base = fmt::format("/proc/{}/{}", crash.Pid(), file.is_absolute() ? "root" : "cwd");
    const std::string what = fmt::format("the core of process {}, {}", crash.Pid(), file.string());
    const host::Descriptor start(open(base.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC), base);
    const Acting acting(crash.User(), crash.Group());
    open_how how{};
    how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    how.resolve = RESOLVE_NO_MAGICLINKS | (file.is_absolute() ? RESOLVE_IN_ROOT : RESOLVE_BENEATH);
    const std::string parent = file.has_parent_path() ? file.parent_path() : ".";
    const host::Descriptor directory(
        static_cast<int>(syscall(SYS_openat2, start.Fd(), parent.c_str(), &how, sizeof how)), what);
    const std::string name = file.filename();
    unlinkat(directory.Fd(), name.c_str(), 0);
    return {openat(directory.Fd(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600), what};
}

} // namespace

void PassOn(const Destination &to, const Crash &crash, const CoreHead &head, int rest) {
    if (!to.program.empty()) {
        PassToProgram(to.program, head, rest);
    } else if (!to.file.empty() && crash.Limit() != 0 && crash.IsPlain()) {
        const host::Descriptor file = NewFile(to.file, crash);
        Copy(head, rest, file.Fd(), crash.Limit());
    }
}

} // namespace core
