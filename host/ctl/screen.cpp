#include "host/ctl/screen.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <thread>

#include "host/ctl/terminal.h"

namespace ctl {

Screen::Screen() {
    tcgetattr(STDIN_FILENO, &before_);
    Enter();
    std::signal(SIGINT, Interrupt);
    std::signal(SIGTERM, Interrupt);
    std::signal(SIGTSTP, Suspend);
}

Screen::~Screen() {
    std::signal(SIGTSTP, SIG_DFL);
    std::cout << std::flush;
    Leave();
}

bool Screen::IsThere() {
    const char *const kind = getenv("TERM");
    return isatty(STDOUT_FILENO) != 0 && isatty(STDIN_FILENO) != 0 && kind != nullptr && *kind != 0 &&
           strcmp(kind, "dumb") != 0;
}

winsize Screen::Size() {
    winsize size{24, 80, 0, 0};
    ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
    return size;
}

void Screen::Show(const std::string &frame, std::string_view lastLine, const winsize &size) {
    std::istringstream in(frame);
    std::string screen = "\033[H", line;
    for (unsigned row = 1; row < size.ws_row && std::getline(in, line); ++row) {
        screen.append(CutTo(line, size.ws_col)).append("\033[K\n");
    }
    std::cout << screen << "\033[J" << CutTo(lastLine, size.ws_col) << std::flush;
}

char Screen::Wait(std::chrono::milliseconds time) {
    pollfd keys{STDIN_FILENO, POLLIN, 0};
    char key = 0;
    if (poll(&keys, 1, static_cast<int>(time.count())) > 0 && read(STDIN_FILENO, &key, 1) <= 0) {
        return 'q';
    }
    return interrupted_ != 0 ? 'q' : key;
}

void Screen::Enter() {
    termios raw = before_;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    Write("\033[?1049h\033[?25l"); // another screen, without a cursor
}

void Screen::Leave() {
    Write("\033[?25h\033[?1049l");
    tcsetattr(STDIN_FILENO, TCSANOW, &before_);
}

void Screen::Write(std::string_view sequence) {
    if (write(STDOUT_FILENO, sequence.data(), sequence.size()) < 0) {
        interrupted_ = 1; // the terminal is gone
    }
}

void Screen::Interrupt(int) {
    interrupted_ = 1;
}

void Screen::Suspend(int) {
    const int error = errno;
    Leave();
    raise(SIGSTOP);
    Enter();
    errno = error;
}

void Repeat(const Repetition &repetition, const MakeFrame &frame, const std::function<void(char)> &onKey,
            std::string_view keys) {
    constexpr size_t kBatchLines = 40; // where no terminal says how much room there is
    if (repetition.batch || repetition.json || !Screen::IsThere()) {
        for (uint32_t i = 0; i < std::max(repetition.times, 1U); ++i) {
            if (i != 0) {
                std::this_thread::sleep_for(repetition.delay);
            }
            std::cout << (i == 0 || repetition.json ? "" : "\n") << frame(kBatchLines) << std::flush;
        }
        return;
    }
    static_cast<void>(frame(1)); // fails before the screen is taken
    const Screen screen;
    for (uint32_t i = 0; repetition.times == 0 || i < repetition.times; ++i) {
        const winsize size = Screen::Size();
        Screen::Show(frame(size.ws_row == 0 ? 1 : size.ws_row - 1U), keys, size);
        const char key = Screen::Wait(repetition.delay);
        if (key == 'q') {
            break;
        }
        onKey(key);
    }
}

} // namespace ctl
