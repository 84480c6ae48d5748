#include "host/osal/log.h"

#include <fmt/format.h>

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>

#include "host/osal/log_lines.h"
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
    LogLines::OfProcess().Write(level, {text.data(), text.size()});
}

Logger &Log() {
    static constinit Logger log;
    return log;
}

void FitLogToStandardError() {
    LogLines::OfProcess().Fit();
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
