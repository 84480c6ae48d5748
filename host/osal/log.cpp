#include "host/osal/log.h"

#include <fmt/format.h>
#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/stdout_color_sinks.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "host/osal/text.h"
#include "tarn_sysdiag/platform/osal.h"

namespace host {
namespace {

// Kept for the life of the process: other libraries log from their own destructors.
std::shared_ptr<const LogHook> &Hook() {
    static auto &hook = *new std::shared_ptr<const LogHook>;
    return hook;
}

std::mutex hookMutex;

// This thread's, the innermost.
constinit thread_local LogGate *gate = nullptr;

// To be asked once for each record.
bool MayWrite(LogLevel level) {
    const bool isGated = gate != nullptr && (level == LogLevel::kWarning || level == LogLevel::kError);
    return !isGated || gate->Passes();
}

// A record stays in its line and is harmless to terminals, whoever chose the names and texts in it.
class OneLine final : public spdlog::custom_flag_formatter {
public:
    void format(const spdlog::details::log_msg &message, const std::tm &, spdlog::memory_buf_t &line) override {
        const std::string text = LineOfText({message.payload.data(), message.payload.size()});
        line.append(text.data(), text.data() + text.size());
    }
    std::unique_ptr<custom_flag_formatter> clone() const override { return std::make_unique<OneLine>(); }
};

// What the journal takes for a record's level.
class Priority final : public spdlog::custom_flag_formatter {
public:
    void format(const spdlog::details::log_msg &message, const std::tm &, spdlog::memory_buf_t &line) override {
        constexpr std::string_view kPriorities[] = {"<7>", "<7>", "<6>", "<4>", "<3>", "<2>"}; // from trace on
        const std::string_view text = kPriorities[message.level];
        line.append(text.data(), text.data() + text.size());
    }
    std::unique_ptr<custom_flag_formatter> clone() const override { return std::make_unique<Priority>(); }
};

// Whoever gave this process the journal as standard error says by which file it is known.
bool IsJournal(int fd) {
    const char *const stream = secure_getenv("JOURNAL_STREAM");
    struct stat status {};
    return stream != nullptr && fstat(fd, &status) == 0 && fmt::format("{}:{}", status.st_dev, status.st_ino) == stream;
}

std::shared_ptr<const LogHook> CurrentHook() {
    const std::lock_guard lock(hookMutex);
    return Hook();
}

// Of a record of XRT_OsalLogWrite.
LogLevel LevelOf(uint32_t level) {
    switch (level) {
    case 0:
    case 1:
        return LogLevel::kCritical;
    case 2:
        return LogLevel::kError;
    case 3:
        return LogLevel::kWarning;
    case 4:
        return LogLevel::kInfo;
    default:
        return LogLevel::kDebug;
    }
}

spdlog::level::level_enum SpdlogLevel(LogLevel level) {
    switch (level) {
    case LogLevel::kDebug:
        return spdlog::level::debug;
    case LogLevel::kInfo:
        return spdlog::level::info;
    case LogLevel::kWarning:
        return spdlog::level::warn;
    case LogLevel::kError:
        return spdlog::level::err;
    default:
        return spdlog::level::critical;
    }
}

class Lines {
public:
    Lines() : sink_(std::make_shared<spdlog::sinks::stderr_color_sink_mt>()), logger_("tarn", sink_) {
        logger_.set_level(spdlog::level::trace);
        logger_.flush_on(spdlog::level::trace);
        Fit();
    }

    // Kept for the life of the process, as the hook is.
    static Lines &OfProcess() {
        static auto &lines = *new Lines;
        return lines;
    }

    void Fit() {
        auto formatter = std::make_unique<spdlog::pattern_formatter>();
        formatter->add_flag<OneLine>('*').add_flag<Priority>('&').set_pattern(
            IsJournal(STDERR_FILENO) ? "%&[%t] %*" : "%Y-%m-%d %H:%M:%S.%e %^%l%$ [%P:%t] %*");
        sink_->set_formatter(std::move(formatter));
        sink_->set_color_mode(spdlog::color_mode::automatic);
    }

    void Write(spdlog::level::level_enum level, fmt::string_view text) {
        logger_.log(level, spdlog::string_view_t(text.data(), text.size()));
    }

private:
    const std::shared_ptr<spdlog::sinks::stderr_color_sink_mt> sink_;
    spdlog::logger logger_;
};

const char *OrEmpty(const char *text) {
    return text == nullptr ? "" : text;
}

std::string Format(const char *format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length < 0) {
        return format;
    }
    std::string text(static_cast<size_t>(length), '\0');
    vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

std::string LineOf(const LogRecord &record) {
    const std::string place =
        record.file.empty() ? fmt::format("line {}", record.line) : fmt::format("{}:{}", record.file, record.line);
    return fmt::format("{}/{} {} ({}): {} [error {}]", record.component, record.module, record.function, place,
                       record.text, record.errCode);
}

} // namespace

LogGate::LogGate() : outer_(gate) {
    gate = this;
}

LogGate::~LogGate() {
    gate = outer_;
}

void Logger::Write(LogLevel level, fmt::string_view format, fmt::format_args args) {
    try {
        if (MayWrite(level)) {
            Write(level, fmt::vformat(format, args));
        }
    } catch (const std::exception &error) { // who logs goes on without the line
        Write(LogLevel::kError, error.what());
    }
}

void Logger::Write(LogLevel level, fmt::string_view text) {
    Lines::OfProcess().Write(SpdlogLevel(level), text);
}

Logger &Log() {
    static constinit Logger log;
    return log;
}

void FitLogToStandardError() {
    Lines::OfProcess().Fit();
}

LogHook SetLogHook(LogHook hook) {
    auto next = hook ? std::make_shared<const LogHook>(std::move(hook)) : nullptr;
    const std::lock_guard lock(hookMutex);
    Hook().swap(next);
    return next ? *next : LogHook();
}

} // namespace host

void XRT_OsalLogWrite(const XrtLogModule *pstModule, uint32_t uiLevel, uint32_t uiErrCode, const char *pcFile,
                      uint32_t uiLine, const char *pcFunction, const char *pcFormat, ...) {
    const auto hook = host::CurrentHook();
    if (!hook && (!host::Log().IsOn(host::LevelOf(uiLevel)) || !host::MayWrite(host::LevelOf(uiLevel)))) {
        return;
    }
    host::LogRecord record;
    if (pstModule != nullptr) {
        record.component = host::OrEmpty(pstModule->pcComponent);
        record.module = host::OrEmpty(pstModule->pcModule);
        record.word = pstModule->uiWord;
    }
    record.level = uiLevel;
    record.errCode = uiErrCode;
    record.file = host::OrEmpty(pcFile);
    record.line = uiLine;
    record.function = host::OrEmpty(pcFunction);
    va_list arguments;
    va_start(arguments, pcFormat);
    record.text = host::Format(host::OrEmpty(pcFormat), arguments);
    va_end(arguments);
    if (hook) {
        (*hook)(record);
    } else {
        host::Log().Write(host::LevelOf(uiLevel), host::LineOf(record));
    }
}
