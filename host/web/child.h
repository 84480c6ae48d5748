// Programs that are started for what they print.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "host/osal/descriptor.h"

namespace web {

// One that runs. It is killed when this is gone.
class Child {
public:
    // Its output comes through a pipe each; it has no input. Throws std::system_error.
    explicit Child(const std::vector<std::string> &words);
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    ~Child();

    // What it prints, piece by piece, until it ends, `take` returns false or, unless it is 0, the time is over: false
    // then. `idle` is called now and then, and ends it as well.
    bool Read(const std::function<bool(std::string_view)> &take, std::chrono::milliseconds most,
              const std::function<bool()> &idle = {});

    // What it said of mistakes, without its name before each line.
    std::string Errors() const;

    // Waits for its end: its exit code, or 128 and the signal's number.
    int Wait();

private:
    const std::string program_;
    host::Descriptor out_, err_;
    std::string errors_;
    pid_t pid_ = -1;
};

} // namespace web
