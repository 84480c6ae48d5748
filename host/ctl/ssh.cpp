#include "host/ctl/ssh.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

#include "host/ctl/archive.h"
#include "host/ctl/commands.h"
#include "host/ctl/interrupt.h"

namespace ctl {

namespace {

// For the shell at the other end.
std::string Quoted(const std::string &word) {
    std::string quoted = "'";
    for (const char letter : word) {
        quoted += letter == '\'' ? "'\\''" : std::string(1, letter);
    }
    return quoted + "'";
}

std::vector<std::string> CommandFor(const std::string &host, const std::vector<std::string> &arguments, bool terminal) {
    const char *const program = getenv("TARN_SSH");
    std::vector<std::string> command{program == nullptr || *program == 0 ? "ssh" : program, "-x",
                                     terminal ? "-t" : "-T"};
    const size_t colon = host.rfind(':');
    const bool hasPort = colon != host.npos && host.find(':') == colon;
    if (hasPort) {
        command.insert(command.end(), {"-p", host.substr(colon + 1)});
    }
    command.insert(command.end(), {"--", host.substr(0, hasPort ? colon : host.size())});
    std::string line = "tarnctl";
    for (const std::string &argument : arguments) {
        line += " " + Quoted(argument);
    }
    command.push_back(line);
    return command;
}

// Held back while it lives, to be taken one by one; a child is to have them as before.
class HeldSignals {
public:
    HeldSignals() {
        sigemptyset(&held_);
        sigaddset(&held_, SIGINT);
        sigaddset(&held_, SIGCHLD);
        sigprocmask(SIG_BLOCK, &held_, &before_);
    }
    ~HeldSignals() { Release(); }
    HeldSignals(const HeldSignals &) = delete;
    HeldSignals &operator=(const HeldSignals &) = delete;

    void Release() const { sigprocmask(SIG_SETMASK, &before_, nullptr); }
    int Next() const {
        int signal = 0;
        sigwait(&held_, &signal);
        return signal;
    }

private:
    sigset_t held_{}, before_{};
};

// The exit status; its standard output goes to the descriptor, unless that is -1. An interrupt ends the connection,
// which the other end notices.
int Run(const std::vector<std::string> &command, int output, const HeldSignals &signals) {
    std::vector<char *> words;
    for (const std::string &word : command) {
        words.push_back(const_cast<char *>(word.c_str()));
    }
    words.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        signals.Release();
        if (output != -1) {
            dup2(output, STDOUT_FILENO);
        }
        execvp(words[0], words.data());
        fprintf(stderr, "tarnctl: %s: cannot run: %s\n", words[0], strerror(errno));
        _exit(255);
    }
    int status = 0;
    bool interrupted = false;
    while (pid > 0 && waitpid(pid, &status, WNOHANG) == 0) {
        if (signals.Next() == SIGINT) {
            interrupted = true;
            kill(pid, SIGINT);
        }
    }
    constexpr int kOfSsh = 255; // what failed is the connection
    const int code = pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : kOfSsh;
    if (interrupted && code == kOfSsh) {
        throw Interrupted("interrupted, and cancelled at the other end");
    }
    return code == kOfSsh ? kConnection : code;
}

bool Take(std::vector<std::string> &arguments, std::string_view option) {
    return std::erase(arguments, option) != 0;
}

// The file of "-o FILE", which is taken out; by default one of the host's name.
std::string TakeFile(std::vector<std::string> &arguments, const std::string &host) {
    const auto option = std::ranges::find(arguments, "-o");
    if (arguments.end() - option > 1) {
        const std::string file = *(option + 1);
        arguments.erase(option, option + 2);
        return file;
    }
    char now[16] = {};
    const time_t seconds = time(nullptr);
    strftime(now, sizeof now, "%Y%m%d%H%M%S", localtime(&seconds));
    return fmt::format("tarn-{}-{}.tar.gz", host, now);
}

// A file that is there only when it is complete.
class PartialFile {
public:
    explicit PartialFile(const std::string &file)
        : file_(file), partial_(file + ".part"),
          fd_(open(partial_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)) {
        if (fd_ < 0) {
            Fail(partial_);
        }
    }
    ~PartialFile() {
        if (fd_ >= 0) {
            close(fd_);
        }
        if (!complete_) {
            unlink(partial_.c_str());
        }
    }
    PartialFile(const PartialFile &) = delete;
    PartialFile &operator=(const PartialFile &) = delete;

    int Fd() const { return fd_; }
    void Complete() {
        complete_ = close(std::exchange(fd_, -1)) == 0 && rename(partial_.c_str(), file_.c_str()) == 0;
        if (!complete_) {
            Fail(file_);
        }
    }

private:
    [[noreturn]] static void Fail(const std::string &file) {
        throw Failure(kOther, fmt::format("{}: cannot write: {}", file, strerror(errno)));
    }

    const std::string file_, partial_;
    int fd_;
    bool complete_ = false;
};

int CollectFrom(const std::string &host, std::vector<std::string> arguments) {
    const HeldSignals signals;
    const std::string file = TakeFile(arguments, host);
    arguments.insert(arguments.end(), {"-o", "-"});
    if (file == "-") {
        return Run(CommandFor(host, arguments, false), -1, signals);
    }
    const bool json = Take(arguments, "--json");
    PartialFile partial(file);
    const int code = Run(CommandFor(host, arguments, false), partial.Fd(), signals);
    if (code == kDone) {
        partial.Complete();
        PrintArchive(file, json);
    }
    return code;
}

// The argument behind an option of the whole program, and behind its value.
std::vector<std::string>::iterator Next(std::vector<std::string> &arguments, std::vector<std::string>::iterator at) {
    constexpr std::string_view kWithValue[] = {"--run-dir", "--server-user", "--fleet", "--device"};
    const bool hasValue = std::ranges::count(kWithValue, *at) != 0;
    return at + std::min<std::ptrdiff_t>(hasValue ? 2 : 1, arguments.end() - at);
}

std::string CommandOf(std::vector<std::string> &arguments) {
    auto at = arguments.begin();
    while (at != arguments.end() && at->starts_with('-')) {
        at = Next(arguments, at);
    }
    return at == arguments.end() ? "" : *at;
}

} // namespace

std::optional<std::string> TakeHost(std::vector<std::string> &arguments) {
    constexpr std::string_view kShort = "-H", kLong = "--host", kLongWithValue = "--host=";
    for (auto at = arguments.begin(); at != arguments.end() && at->starts_with('-'); at = Next(arguments, at)) {
        const bool isNext = (*at == kShort || *at == kLong) && arguments.end() - at > 1;
        const bool isIn = at->starts_with(kLongWithValue) || (at->starts_with(kShort) && at->size() > kShort.size());
        if (isNext || isIn) {
            const size_t sign = at->starts_with(kLong) ? kLongWithValue.size() : kShort.size();
            const std::string host = isNext ? *(at + 1) : at->substr(sign);
            if (host.empty()) {
                throw Failure(kUsage, "--host: found nothing, expected a machine");
            }
            arguments.erase(at, at + (isNext ? 2 : 1));
            return host;
        }
    }
    return std::nullopt;
}

int RunAt(const std::string &host, std::vector<std::string> arguments) {
    const bool collects = CommandOf(arguments) == "collect" && std::ranges::count(arguments, "--help") == 0;
    if (collects) {
        return CollectFrom(host, std::move(arguments));
    }
    const HeldSignals signals;
    return Run(CommandFor(host, arguments, isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0), -1, signals);
}

} // namespace ctl
