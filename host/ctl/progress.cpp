#include "host/ctl/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <iostream>

#include "host/osal/text.h"

namespace ctl {

namespace {

constexpr std::chrono::milliseconds kOfBar{100};
constexpr std::chrono::seconds kOfLines{10};

} // namespace

Progress::Progress(const Globals &globals, std::string what, uint64_t all)
    : what_(std::move(what)), all_(all), quiet_(globals.quiet), terminal_(isatty(STDERR_FILENO) != 0),
      next_(Clock::now() + (terminal_ ? std::chrono::milliseconds(kOfBar) : std::chrono::milliseconds(kOfLines))) {}

Progress::~Progress() {
    if (shown_ && terminal_) {
        std::cerr << "\r\033[K" << std::flush;
    }
}

std::string Progress::Text(uint64_t done, const std::string &note) const {
    constexpr size_t kWidth = 30;
    const std::string behind = note.empty() ? "" : ", " + host::LineOfText(note);
    if (all_ == 0) {
        return fmt::format("{}{}{}", what_, done == 0 ? "" : fmt::format(" {}", done), behind);
    }
    const auto full = static_cast<size_t>(std::min(done, all_) * kWidth / all_);
    const std::string bar =
        terminal_ ? fmt::format(" [{}{}]", std::string(full, '#'), std::string(kWidth - full, ' ')) : "";
    return fmt::format("{}{} {} of {}{}", what_, bar, done, all_, behind);
}

void Progress::Set(uint64_t done, const std::string &note) {
    const auto now = Clock::now();
    if (quiet_ || now < next_) {
        return;
    }
    shown_ = true;
    if (terminal_) {
        std::cerr << "\r" << Text(done, note) << "\033[K" << std::flush;
        next_ = now + kOfBar;
    } else {
        std::cerr << "tarnctl: " << Text(done, note) << "\n";
        next_ = now + kOfLines;
    }
}

} // namespace ctl
