// What is asked of a daemon again and again while somebody looks: once, however many look.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "host/describe/json.h"
#include "host/osal/mutex.h"

namespace web {

class Live {
public:
    // A question, its answer at the moment, and how often it is asked.
    struct Topic {
        std::function<host::describe::Json()> ask;
        std::chrono::milliseconds every;
    };
    // Of a topic's name; nothing for one that there is not.
    using Topics = std::function<std::optional<Topic>(const std::string &name)>;

    explicit Live(Topics topics);
    Live(const Live &) = delete;
    Live &operator=(const Live &) = delete;
    ~Live();

    // What one viewer sees of some topics.
    class View {
    public:
        // Throws std::invalid_argument for a topic that there is not, or one too many.
        View(Live &live, std::vector<std::string> names);
        View(const View &) = delete;
        View &operator=(const View &) = delete;
        ~View();

        struct Answer {
            std::string name;
            std::shared_ptr<const std::string> text; // JSON in one line
        };
        // The answers that this view has not had yet; waits for one so long.
        std::vector<Answer> Next(std::chrono::milliseconds wait);

    private:
        std::vector<Answer> Fresh() TARN_REQUIRES(live_.mutex_);

        Live &live_;
        std::map<std::string, uint64_t> seen_;
    };

private:
    using Clock = std::chrono::steady_clock;
    struct State {
        Topic topic;
        size_t viewers = 0; // it goes with the last
        Clock::time_point due;
        uint64_t number = 0; // of the answer; 0: none yet
        std::shared_ptr<const std::string> text = {};
    };

    void Run() TARN_EXCLUDES(mutex_);
    std::string NameOfDue(Clock::time_point now) const TARN_REQUIRES(mutex_);
    Clock::time_point NextDue() const TARN_REQUIRES(mutex_);

    const Topics topics_;
    host::Mutex mutex_;
    host::Condition changed_; // a topic has come, or the end
    host::Condition told_;    // an answer has
    std::map<std::string, State> states_ TARN_GUARDED_BY(mutex_);
    uint64_t last_ TARN_GUARDED_BY(mutex_) = 0;
    bool stopping_ TARN_GUARDED_BY(mutex_) = false;
    std::thread thread_;
};

} // namespace web
