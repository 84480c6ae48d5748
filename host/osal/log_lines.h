// The log's lines on standard error.
#pragma once

#include <string_view>

#include "host/osal/log.h"
#include "host/osal/mutex.h"

namespace host {

class LogLines {
public:
    // Kept for the life of the process: other libraries log from their own destructors.
    static LogLines &OfProcess();

    LogLines() { Fit(); }

    // Chooses the form that suits what standard error is.
    void Fit() TARN_EXCLUDES(mutex_);

    void Write(LogLevel level, std::string_view text) TARN_EXCLUDES(mutex_);

private:
    enum class Form { kPlain, kTerminal, kJournal };

    Mutex mutex_;
    Form form_ TARN_GUARDED_BY(mutex_) = Form::kPlain;
};

} // namespace host
