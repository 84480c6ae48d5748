// What views ask now and then, and what is done for them: by tarnctl, whose JSON they are drawn from. So a page and a
// terminal can't differ, and what goes wrong with one question stays in a process that ends.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/describe/json.h"
#include "host/osal/mutex.h"
#include "host/web/http.h"

namespace web {

class Tasks {
public:
    // The program, and what of its options comes before the task.
    explicit Tasks(std::vector<std::string> program) : program_(std::move(program)) {}

    // {"rows": [...], "note": "what was said besides"}, or {"error": "...", "code": 3}. Who asks the same within a
    // second gets the same answer, unless something has happened since.
    host::describe::Json Ask(const std::vector<std::string> &words);

    // Something has happened: what was asked before may be otherwise now.
    void Forget();

    // Each time anew, and something has happened then: {"said": "what it printed", "note": "..."}, or as above.
    host::describe::Json Do(const std::vector<std::string> &words);

    // What it prints, as it prints it.
    Response Print(const std::vector<std::string> &words, Response answer);

    // The words of a program that does this.
    std::vector<std::string> WordsOf(const std::vector<std::string> &words) const;

private:
    struct Question {
        std::optional<host::describe::Json> answer;
        std::chrono::steady_clock::time_point asked;
    };
    struct Ended;
    class Turn;

    Ended Run(const std::vector<std::string> &words) TARN_EXCLUDES(mutex_);

    const std::vector<std::string> program_;
    host::Mutex mutex_;
    host::Condition changed_;
    size_t running_ TARN_GUARDED_BY(mutex_) = 0;
    std::map<std::vector<std::string>, std::shared_ptr<Question>> questions_ TARN_GUARDED_BY(mutex_);
};

} // namespace web
