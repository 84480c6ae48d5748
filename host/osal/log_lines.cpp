#include "host/osal/log_lines.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include <fmt/format.h>

#include "host/osal/text.h"

namespace host {
namespace {

struct Look {
    std::string_view name;
    std::string_view colour;
    char priority; // the journal's
};

const Look &LookOf(LogLevel level) {
    static constexpr Look kLooks[] = {{"debug", "\033[36m", '7'},
                                      {"info", "\033[32m", '6'},
                                      {"warning", "\033[1;33m", '4'},
                                      {"error", "\033[1;31m", '3'},
                                      {"critical", "\033[1;41m", '2'}};
    return kLooks[static_cast<size_t>(level)];
}

// Whoever gave this process the journal as standard error says by which file it is known.
bool IsJournal(int fd) {
    const char *const stream = secure_getenv("JOURNAL_STREAM");
    struct stat status {};
    return stream != nullptr && fstat(fd, &status) == 0 && fmt::format("{}:{}", status.st_dev, status.st_ino) == stream;
}

bool HasColours(int fd) {
    const char *const terminal = getenv("TERM");
    return isatty(fd) != 0 && terminal != nullptr && std::string_view(terminal) != "dumb";
}

std::string LocalNow() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return fmt::format("{}.{:03}", text, now.tv_nsec / 1000000);
}

void WriteAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(fd, text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            return; // nobody is left to tell
        }
        text.remove_prefix(static_cast<size_t>(written < 0 ? 0 : written));
    }
}

} // namespace

LogLines &LogLines::OfProcess() {
    static auto &lines = *new LogLines;
    return lines;
}

void LogLines::Fit() {
    const MutexLock lock(mutex_);
    form_ = IsJournal(STDERR_FILENO) ? Form::kJournal : HasColours(STDERR_FILENO) ? Form::kTerminal : Form::kPlain;
}

// A record stays in its line and is harmless to terminals, whoever chose the names and texts in it.
void LogLines::Write(LogLevel level, std::string_view text) {
    const Look &look = LookOf(level);
    const std::string line = LineOfText(text);
    const int tid = gettid();
    const MutexLock lock(mutex_);
    if (form_ == Form::kJournal) {
        WriteAll(STDERR_FILENO, fmt::format("<{}>[{}] {}\n", look.priority, tid, line));
        return;
    }
    const bool coloured = form_ == Form::kTerminal;
    WriteAll(STDERR_FILENO, fmt::format("{} {}{}{} [{}:{}] {}\n", LocalNow(), coloured ? look.colour : "", look.name,
                                        coloured ? "\033[m" : "", getpid(), tid, line));
}

} // namespace host
