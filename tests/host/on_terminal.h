// A program on a terminal of the test's own. A test file makes a unit before it includes this.
#pragma once

#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <utmp.h>

#include <cerrno>
#include <system_error>

#include "tests/host/kit.h"

namespace kit {

class OnTerminal {
public:
    OnTerminal(std::vector<std::string> command, winsize size, const char *kind = "xterm") {
        if (openpty(&master_, &terminal_, nullptr, nullptr, &size) != 0) {
            throw std::system_error(errno, std::generic_category(), "openpty");
        }
        before_ = Modes();
        std::vector<char *> arguments;
        for (std::string &word : command) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            close(master_);
            login_tty(terminal_);
            setenv("TERM", kind, 1);
            execv(arguments[0], arguments.data());
            _exit(127);
        }
    }
    ~OnTerminal() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        HangUp();
    }
    OnTerminal(const OnTerminal &) = delete;
    OnTerminal &operator=(const OnTerminal &) = delete;

    // Whether it writes the text, behind what was written when Forget was last called.
    bool Shows(std::string_view text) {
        return Eventually([&] {
            Read();
            return output_.find(text) != output_.npos;
        });
    }
    void Forget() {
        Read();
        output_.clear();
    }
    const std::string &Output() const { return output_; }

    void Press(const std::string &keys) const {
        EXPECT_EQ(write(master_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }
    void Resize(winsize size) const { EXPECT_EQ(ioctl(master_, TIOCSWINSZ, &size), 0); }
    void Signal(int signal) const { kill(pid_, signal); }
    void HangUp() {
        for (int *const end : {&master_, &terminal_}) {
            if (*end != -1) {
                close(*end);
                *end = -1;
            }
        }
    }

    bool Stops() const {
        int status = 0;
        return Eventually([&] { return waitpid(pid_, &status, WUNTRACED | WNOHANG) == pid_; }) && WIFSTOPPED(status);
    }
    // The exit status, or the signal that ended it, negative.
    int Wait() {
        int status = 0;
        const auto ended = [&] {
            Read(); // it may wait for room
            return waitpid(pid_, &status, WNOHANG) != 0;
        };
        if (!Eventually(ended)) {
            ADD_FAILURE() << "it does not end: " << output_;
            kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
        }
        pid_ = -1;
        Read();
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

    bool IsRaw() const { return (Modes().c_lflag & (ICANON | ECHO)) == 0; }
    bool IsAsBefore() const {
        const termios now = Modes();
        return now.c_lflag == before_.c_lflag && now.c_iflag == before_.c_iflag && now.c_oflag == before_.c_oflag &&
               memcmp(now.c_cc, before_.c_cc, sizeof now.c_cc) == 0;
    }

private:
    termios Modes() const {
        termios modes{};
        EXPECT_EQ(tcgetattr(terminal_, &modes), 0);
        return modes;
    }
    void Read() {
        char bytes[4096];
        for (pollfd ready{master_, POLLIN, 0}; master_ != -1 && poll(&ready, 1, 0) > 0;) {
            const ssize_t count = read(master_, bytes, sizeof bytes);
            if (count <= 0) {
                return;
            }
            output_.append(bytes, static_cast<size_t>(count));
        }
    }

    int master_ = -1;
    int terminal_ = -1; // held here too, so that its modes outlive the program
    termios before_{};
    std::string output_;
    pid_t pid_ = -1;
};

} // namespace kit
