// The terminal that people read from: how wide text is there, what it can show, and the pager before it.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <iostream>
#include <string>
#include <string_view>

namespace ctl {

// How many columns a line of UTF-8 takes; the program's locale has to know UTF-8.
size_t WidthOf(std::string_view line);

// As much of a line as so many columns show, "…" where something is left out.
std::string CutTo(std::string_view line, size_t columns);

// How many columns standard output, or another, shows; 0 where it is no terminal.
size_t TerminalWidth(int output = STDOUT_FILENO);

// What the reader's device can show.
struct Style {
    size_t width = 0;  // columns that lines are cut to, and that wide records are turned for; 0: as long as they are
    bool whole = true; // lines are not cut: there is no terminal, or it has a pager that scrolls
    bool colours = false;

    std::string Bold(const std::string &text) const;
    std::string Warning(const std::string &text) const;
    std::string Bad(const std::string &text) const;
};

// Of standard output as it is; without colours where NO_COLOR is set.
Style StyleOfOutput();

// Where a command prints its result. On a terminal a pager comes between, which ends by itself where one screen has
// room for all: $TARN_PAGER, else $PAGER, else less; none where that is empty or "cat".
class Output {
public:
    explicit Output(bool mayPage = true);
    ~Output();
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    std::ostream &Stream() { return std::cout; }
    const Style &GetStyle() const { return style_; }

private:
    void StartPager(const std::string &command);

    Style style_;
    pid_t pager_ = 0;
};

} // namespace ctl
