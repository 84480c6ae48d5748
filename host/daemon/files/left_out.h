// What an archive lacks of what it was asked for.
#pragma once

#include <cstdint>
#include <string>

#include <fmt/format.h>

#include "host/osal/log.h"
#include "host/osal/text.h"

namespace tarnd {

// The log names the first, as whoever has one such file may have thousands.
class LeftOut {
public:
    void Add(const std::string &what) {
        constexpr uint64_t kMostNamed = 20;
        if (++number_ <= kMostNamed) {
            host::Log().info("left out of the archive: {}", host::LineOfText(what));
        }
        if (first_.empty()) {
            first_ = host::LineOfText(what);
        }
    }

    // Empty when nothing is left out.
    std::string Text() const {
        return number_ == 0 ? "" : fmt::format("{} left out, the first of them {}", number_, first_);
    }

private:
    uint64_t number_ = 0;
    std::string first_;
};

} // namespace tarnd
