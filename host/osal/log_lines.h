// The log's lines on standard error.
#pragma once

#include <mutex>
#include <string_view>

#include "host/osal/log.h"

namespace host {

class LogLines {
public:
    // Kept for the life of the process: other libraries log from their own destructors.
    static LogLines &OfProcess();

    LogLines() { Fit(); }

    // Chooses the form that suits what standard error is.
    void Fit();

    void Write(LogLevel level, std::string_view text);

private:
    enum class Form { kPlain, kTerminal, kJournal };

    std::mutex mutex_;
    Form form_ = Form::kPlain;
};

} // namespace host
