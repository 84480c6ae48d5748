#include "host/ctl/terminal.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <cwchar>
#include <iostream>

#include "host/osal/text.h"

namespace ctl {

namespace {

// A character at the start of a text; of what is no UTF-8 a byte, which takes a column.
struct Character {
    size_t bytes, columns;
};

Character FirstOf(std::string_view text) {
    std::mbstate_t state{};
    wchar_t wide = 0;
    const size_t bytes = std::mbrtowc(&wide, text.data(), text.size(), &state);
    if (bytes == 0 || bytes > text.size()) {
        return {1, 1};
    }
    const int columns = wcwidth(wide);
    return {bytes, columns < 0 ? 1 : static_cast<size_t>(columns)};
}

std::string Variable(const char *name, const char *ifNone) {
    const char *const value = getenv(name);
    return value == nullptr ? ifNone : value;
}

// A program by its path, or one that is found.
bool IsThere(const std::string &program) {
    if (program.find('/') != program.npos) {
        return access(program.c_str(), X_OK) == 0;
    }
    const std::string path = Variable("PATH", "/usr/bin:/bin");
    for (size_t at = 0; at <= path.size();) {
        const size_t end = std::min(path.find(':', at), path.size());
        if (access((path.substr(at, end - at) + "/" + program).c_str(), X_OK) == 0) {
            return true;
        }
        at = end + 1;
    }
    return false;
}

// Empty for none. What is longer than a program and its options is the shell's to find.
std::string PagerCommand() {
    const std::string command = Variable("TARN_PAGER", Variable("PAGER", IsThere("less") ? "less" : "").c_str());
    const std::string program = command.substr(0, command.find(' '));
    const bool isPlain = program.find_first_of("=$`\"'\\;&|<>(){}~") == program.npos;
    if (command.empty() || command == "cat") {
        return "";
    }
    if (isPlain && !IsThere(program)) {
        std::cerr << "tarnctl: " << host::LineOfText(program) << ": no such pager; TARN_PAGER or PAGER names one\n";
        return "";
    }
    return command;
}

std::string Coloured(const Style &style, const char *code, const std::string &text) {
    return style.colours ? "\033[" + std::string(code) + "m" + text + "\033[0m" : text;
}

} // namespace

size_t WidthOf(std::string_view line) {
    size_t width = 0;
    while (!line.empty()) {
        const Character first = FirstOf(line);
        width += first.columns;
        line.remove_prefix(first.bytes);
    }
    return width;
}

std::string CutTo(std::string_view line, size_t columns) {
    if (WidthOf(line) <= columns) {
        return std::string(line);
    }
    size_t end = 0;
    for (size_t used = 1; end < line.size();) { // 1: of the sign behind it
        const Character next = FirstOf(line.substr(end));
        used += next.columns;
        if (used > columns) {
            break;
        }
        end += next.bytes;
    }
    return std::string(line.substr(0, end)) + (columns == 0 ? "" : "…");
}

size_t TerminalWidth(int output) {
    constexpr size_t kUsual = 80;
    winsize size{};
    if (isatty(output) == 0) {
        return 0;
    }
    return ioctl(output, TIOCGWINSZ, &size) == 0 && size.ws_col != 0 ? size.ws_col : kUsual;
}

std::string Style::Bold(const std::string &text) const {
    return Coloured(*this, "1", text);
}

std::string Style::Warning(const std::string &text) const {
    return Coloured(*this, "33", text);
}

std::string Style::Bad(const std::string &text) const {
    return Coloured(*this, "1;31", text);
}

Style StyleOfOutput() {
    const size_t width = TerminalWidth();
    const bool colours = width != 0 && Variable("NO_COLOR", "").empty() && Variable("TERM", "dumb") != "dumb";
    return {.width = width, .whole = width == 0, .colours = colours};
}

Output::Output(bool mayPage) : style_(StyleOfOutput()) {
    const std::string command = mayPage && style_.width != 0 ? PagerCommand() : "";
    if (!command.empty()) {
        StartPager(command);
    }
}

void Output::StartPager(const std::string &command) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return;
    }
    pager_ = fork();
    if (pager_ == 0) {
        dup2(ends[0], STDIN_FILENO);
        setenv("LESS", "FRSX", 0); // ends on one screen, shows colours, cuts lines, leaves the screen as it is
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(127);
    }
    close(ends[0]);
    if (pager_ > 0) {
        std::signal(SIGINT, SIG_IGN);  // is the pager's key from now on
        std::signal(SIGPIPE, SIG_IGN); // who has seen enough leaves
        dup2(ends[1], STDOUT_FILENO);
        style_.whole = true;
    }
    close(ends[1]);
}

Output::~Output() {
    std::cout.flush();
    if (pager_ > 0) {
        std::cout.clear();                  // of that the reader has left
        dup2(STDERR_FILENO, STDOUT_FILENO); // the pager has met the end
        waitpid(pager_, nullptr, 0);
    }
}

} // namespace ctl
