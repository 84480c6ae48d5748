// The host kit's log: lines on stderr. XRT_OsalLogWrite writes here too.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include <fmt/core.h>

namespace host {

enum class LogLevel { kDebug, kInfo, kWarning, kError, kCritical, kOff };

// Checks the level and gathers the arguments where it is called; the rest is compiled once.
class Logger {
public:
    void set_level(LogLevel level) { level_.store(level, std::memory_order_relaxed); }
    bool IsOn(LogLevel level) const { return level >= level_.load(std::memory_order_relaxed); }

    template <class... Args>
    void debug(fmt::format_string<Args...> format, Args &&...args) {
        Log(LogLevel::kDebug, format, args...);
    }
    template <class... Args>
    void info(fmt::format_string<Args...> format, Args &&...args) {
        Log(LogLevel::kInfo, format, args...);
    }
    template <class... Args>
    void warn(fmt::format_string<Args...> format, Args &&...args) {
        Log(LogLevel::kWarning, format, args...);
    }
    template <class... Args>
    void error(fmt::format_string<Args...> format, Args &&...args) {
        Log(LogLevel::kError, format, args...);
    }
    template <class... Args>
    void critical(fmt::format_string<Args...> format, Args &&...args) {
        Log(LogLevel::kCritical, format, args...);
    }

    void Write(LogLevel level, fmt::string_view text);

private:
    template <class... Args>
    void Log(LogLevel level, fmt::string_view format, const Args &...args) {
        if (IsOn(level)) {
            Write(level, format, fmt::make_format_args(args...));
        }
    }
    void Write(LogLevel level, fmt::string_view format, fmt::format_args args);

    std::atomic<LogLevel> level_ = LogLevel::kInfo;
};

// The process's log.
Logger &Log();

// Gives lines the form that suits what standard error is: the journal gets priorities and knows the time itself, a
// terminal colours. To be called when standard error has become another file.
void FitLogToStandardError();

// While it lives, the warnings and errors that this thread logs are written as far as it passes them. One may be within
// another, which is not asked then.
class LogGate {
public:
    LogGate();
    LogGate(const LogGate &) = delete;
    LogGate &operator=(const LogGate &) = delete;
    virtual ~LogGate();

    virtual bool Passes() = 0;

private:
    LogGate *const outer_;
};

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
