// A terminal's whole screen, for what is shown again and again.
#pragma once

#include <sys/ioctl.h>
#include <termios.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <string>
#include <string_view>

namespace ctl {

// The keys, read one by one and not shown, and the screen as it was when the end comes.
class Screen {
public:
    Screen();
    ~Screen();
    Screen(const Screen &) = delete;
    Screen &operator=(const Screen &) = delete;

    static bool IsThere();
    static winsize Size();

    // Lines cut to the screen, the last below them; each cleared behind its end, so that nothing flickers.
    static void Show(const std::string &frame, std::string_view lastLine, const winsize &size);

    // The next key, 0 when the time is over; 'q' also when the user wants no more in another way.
    static char Wait(std::chrono::milliseconds time);

private:
    // Also of a signal's handler: they make system calls only.
    static void Enter();
    static void Leave();
    static void Write(std::string_view sequence);
    static void Interrupt(int);
    static void Suspend(int);

    static inline volatile std::sig_atomic_t interrupted_ = 0;
    static inline termios before_{};
};

// A view again and again: on a terminal its screen, until the user ends it; else so many times, once for 0. The
// function makes the text of so many lines.
struct Repetition {
    uint32_t times = 0; // 0: until the end
    std::chrono::milliseconds delay{1000};
    bool batch = false; // as where there is no terminal
    bool json = false;  // the same for programs: nothing between two views
};
using MakeFrame = std::function<std::string(size_t lines)>;
// A key that the view knows is told; the last line names those.
void Repeat(const Repetition &repetition, const MakeFrame &frame, const std::function<void(char)> &onKey,
            std::string_view keys);

} // namespace ctl
