#include "host/web/child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "host/osal/text.h"

namespace web {

namespace {

struct Pipe {
    Pipe() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            host::Fail(errno, "pipe");
        }
        read = host::Descriptor(ends[0]);
        write = host::Descriptor(ends[1]);
    }
    host::Descriptor read, write;
};

pid_t Start(const std::vector<std::string> &words, const Pipe &out, const Pipe &err) {
    std::vector<char *> arguments;
    for (const std::string &word : words) {
        arguments.push_back(const_cast<char *>(word.c_str()));
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&files, out.write.Fd(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&files, err.write.Fd(), STDERR_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none; // this program's threads have signals blocked
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    pid_t pid = -1;
    const int error = posix_spawn(&pid, words.front().c_str(), &files, &attributes, arguments.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    if (error != 0) {
        host::Fail(error, words.front());
    }
    return pid;
}

} // namespace

Child::Child(const std::vector<std::string> &words)
    : program_(std::filesystem::path(words.front()).filename().string()) {
    Pipe out, err;
    pid_ = Start(words, out, err);
    out_ = std::move(out.read);
    err_ = std::move(err.read);
}

Child::~Child() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

bool Child::Read(const std::function<bool(std::string_view)> &take, std::chrono::milliseconds most,
                 const std::function<bool()> &idle) {
    constexpr int kLookMs = 250;
    constexpr size_t kMostErrors = 16 * 1024; // what is beyond them helps nobody
    const auto end = std::chrono::steady_clock::now() + most;
    char buffer[16384];
    pollfd ends[] = {{out_.Fd(), POLLIN, 0}, {err_.Fd(), POLLIN, 0}};
    while (ends[0].fd >= 0 || ends[1].fd >= 0) {
        if ((idle && !idle()) || (most.count() != 0 && std::chrono::steady_clock::now() > end)) {
            return false;
        }
        if (poll(ends, 2, kLookMs) <= 0) {
            continue;
        }
        for (pollfd &one : ends) {
            if (one.fd < 0 || one.revents == 0) {
                continue;
            }
            const ssize_t size = read(one.fd, buffer, sizeof buffer);
            if (size <= 0) {
                one.fd = -1;
            } else if (&one == &ends[1]) {
                errors_.append(buffer, std::min(static_cast<size_t>(size), kMostErrors - errors_.size()));
            } else if (!take({buffer, static_cast<size_t>(size)})) {
                return false;
            }
        }
    }
    return true;
}

std::string Child::Errors() const {
    const std::string name = program_ + ": ";
    std::string text, line;
    for (size_t at = 0; at < errors_.size();) {
        const size_t end = std::min(errors_.find('\n', at), errors_.size());
        line = errors_.substr(at, end - at);
        text += (text.empty() ? "" : "\n") + host::LineOfText(line.starts_with(name) ? line.substr(name.size()) : line);
        at = end + 1;
    }
    return text;
}

int Child::Wait() {
    int status = 0;
    if (pid_ > 0) {
        waitpid(std::exchange(pid_, -1), &status, 0);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace web
