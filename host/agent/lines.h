// The lines of a file, read without allocating: in a signal handler, too.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <string_view>

#include "host/osal/descriptor.h"

namespace agent {

// Lines beyond the buffer are cut.
class Lines {
public:
    explicit Lines(const char *path) : file_(open(path, O_RDONLY | O_CLOEXEC)) {}

    // False at the end.
    bool Next(std::string_view &line) {
        size_t length = 0;
        for (char c = 0; Take(c);) {
            if (c == '\n') {
                line = {line_, length};
                return true;
            }
            if (length < sizeof line_) {
                line_[length++] = c;
            }
        }
        return false;
    }

private:
    bool Take(char &c) {
        if (at_ == end_) {
            const ssize_t got = read(file_.Fd(), buffer_, sizeof buffer_);
            if (got <= 0) {
                return false;
            }
            at_ = 0;
            end_ = static_cast<size_t>(got);
        }
        c = buffer_[at_++];
        return true;
    }

    const host::Descriptor file_;
    char buffer_[4096];
    char line_[512];
    size_t at_ = 0, end_ = 0;
};

} // namespace agent
