#include "host/ctl/progress.h"

#include <fmt/format.h>

#include <iostream>

#include "host/ctl/terminal.h"
#include "host/osal/text.h"

namespace ctl {

namespace {

constexpr std::chrono::milliseconds kOfBar{100}, kUntilBar{500};
constexpr std::chrono::milliseconds kOfLines{10'000};

} // namespace

Progress::Progress(const Globals &globals, std::string what, uint64_t all)
    : what_(std::move(what)), all_(all), quiet_(globals.quiet), terminal_(isatty(STDERR_FILENO) != 0),
      next_(start_ + (terminal_ ? kUntilBar : kOfLines)) {}

Progress::~Progress() {
    Hide();
}

void Progress::Hide() const {
    if (shown_ && terminal_) {
        std::cerr << "\r\033[K" << std::flush;
    }
}

std::string Progress::Text() const {
    constexpr size_t kWidth = 30;
    const std::string behind = note_.empty() ? "" : ", " + host::LineOfText(note_);
    if (all_ == 0) {
        const auto time = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start_);
        return fmt::format("{}{}, {} s", what_, behind, time.count());
    }
    const auto full = static_cast<size_t>(std::min(done_, all_) * kWidth / all_);
    const std::string bar =
        terminal_ ? fmt::format(" [{}{}]", std::string(full, '#'), std::string(kWidth - full, ' ')) : "";
    return fmt::format("{}{} {} of {}{}", what_, bar, done_, all_, behind);
}

void Progress::Set(uint64_t done, const std::string &note) {
    done_ = done;
    note_ = note;
    Show();
}

void Progress::Show() {
    const auto now = Clock::now();
    if (quiet_ || now < next_) {
        return;
    }
    shown_ = true;
    if (terminal_) {
        std::cerr << "\r" << CutTo(Text(), TerminalWidth(STDERR_FILENO)) << "\033[K" << std::flush;
        next_ = now + kOfBar;
    } else {
        std::cerr << "tarnctl: " << Text() << "\n";
        next_ = now + kOfLines;
    }
}

} // namespace ctl
