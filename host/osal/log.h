// The host kit's log: spdlog to stderr. XRT_OsalLogWrite writes here too.
#pragma once

#include <spdlog/logger.h>

#include <cstdint>
#include <functional>
#include <string>

namespace host {

// The process's log. Its level is info until set with Log().set_level().
spdlog::logger &Log();

// A record as it came to XRT_OsalLogWrite, its text formatted.
struct LogRecord {
    std::string component;
    std::string module;
    uint32_t word = 0;
    uint32_t level = 0;
    uint32_t errCode = 0;
    std::string file;
    uint32_t line = 0;
    std::string function;
    std::string text;
};

// Is given each record instead of the log, on the thread that logs; null gives the records back to the log. Returns the
// hook that was in force.
using LogHook = std::function<void(const LogRecord &)>;
LogHook SetLogHook(LogHook hook);

} // namespace host
