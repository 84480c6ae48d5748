#include "host/web/tasks.h"

#include <fmt/format.h>

#include "host/web/child.h"

namespace web {

using host::describe::Json;

namespace {

constexpr size_t kMostAtOnce = 8;
constexpr std::chrono::seconds kPatience{60}, kFresh{1};
constexpr size_t kMostBytes = 32 * 1024 * 1024;

Json RowsOf(const std::string &text) {
    Json rows = Json::array();
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        rows.push_back(host::describe::ParseJson(std::string_view(text).substr(at, end - at)));
        at = end + 1;
    }
    return rows;
}

} // namespace

struct Tasks::Ended {
    int code = 1;
    std::string text, said; // on standard output, and besides

    Json Error() const { return {{"error", said}, {"code", code}}; }
};

// So many programs run at once, others wait.
class Tasks::Turn {
public:
    explicit Turn(Tasks &tasks) : tasks_(tasks) {
        host::MutexLock lock(tasks_.mutex_);
        tasks_.changed_.Wait(lock, [this]() TARN_REQUIRES(tasks_.mutex_) { return tasks_.running_ < kMostAtOnce; });
        ++tasks_.running_;
    }
    Turn(const Turn &) = delete;
    Turn &operator=(const Turn &) = delete;
    ~Turn() {
        const host::MutexLock lock(tasks_.mutex_);
        --tasks_.running_;
        tasks_.changed_.NotifyAll();
    }

private:
    Tasks &tasks_;
};

std::vector<std::string> Tasks::WordsOf(const std::vector<std::string> &words) const {
    std::vector<std::string> all = program_;
    all.insert(all.end(), words.begin(), words.end());
    return all;
}

Tasks::Ended Tasks::Run(const std::vector<std::string> &words) {
    const Turn turn(*this);
    Ended ended;
    try {
        Child child(WordsOf(words));
        const auto take = [&](std::string_view piece) {
            ended.text += piece;
            return ended.text.size() <= kMostBytes;
        };
        if (child.Read(take, kPatience)) {
            ended.code = child.Wait();
            ended.said = child.Errors();
        } else {
            ended.said = ended.text.size() > kMostBytes ? fmt::format("the answer is beyond {} bytes", kMostBytes)
                                                        : fmt::format("no answer within {} s", kPatience.count());
        }
    } catch (const std::exception &error) {
        ended.said = error.what();
    }
    return ended;
}

void Tasks::Forget() {
    const host::MutexLock lock(mutex_);
    questions_.clear();
}

Json Tasks::Do(const std::vector<std::string> &words) {
    const Ended ended = Run(words);
    Forget();
    return ended.code != 0 ? ended.Error() : Json{{"said", ended.text}, {"note", ended.said}};
}

Json Tasks::Ask(const std::vector<std::string> &words) {
    const auto now = std::chrono::steady_clock::now();
    std::shared_ptr<Question> question;
    {
        host::MutexLock lock(mutex_);
        std::erase_if(questions_,
                      [&](const auto &one) { return one.second->answer && now - one.second->asked > kFresh; });
        const auto [known, isNew] = questions_.try_emplace(words, nullptr);
        if (!isNew) {
            question = known->second;
            changed_.Wait(lock, [&]() TARN_REQUIRES(mutex_) { return question->answer.has_value(); });
            return *question->answer;
        }
        question = known->second = std::make_shared<Question>(Question{{}, now});
    }
    const Ended ended = Run(words);
    Json answer = ended.code != 0 ? ended.Error() : Json{{"rows", RowsOf(ended.text)}, {"note", ended.said}};
    const host::MutexLock lock(mutex_);
    question->answer = answer;
    const auto kept = questions_.find(words);
    if (ended.code != 0 && kept != questions_.end() && kept->second == question) {
        questions_.erase(kept); // what failed may go well the next time
    }
    changed_.NotifyAll();
    return answer;
}

Response Tasks::Print(const std::vector<std::string> &words, Response answer) {
    const auto child = std::make_shared<Child>(WordsOf(words));
    auto first = std::make_shared<std::string>(); // what fails prints nothing
    child->Read(
        [&](std::string_view piece) {
            *first = piece;
            return false;
        },
        kPatience);
    if (first->empty()) {
        return {.status = 502, .body = child->Errors() + "\n"};
    }
    answer.stream = [child, first](const Write &write) {
        if (write(*first)) {
            child->Read(write, kPatience);
        }
    };
    return answer;
}

} // namespace web
