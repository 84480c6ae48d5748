#include "host/web/events.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "host/web/child.h"

namespace web {

namespace {

constexpr size_t kMostEvents = 2000; // that are kept here
constexpr std::chrono::seconds kRetry{2};

uint64_t NumberOf(std::string_view text) {
    uint64_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

// Of another start of this program than any before.
uint64_t FirstRun() {
    return static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch() / std::chrono::milliseconds(1));
}

} // namespace

std::string Events::Place::Text() const {
    return fmt::format("{}.{}", run, next);
}

Events::Place Events::Place::Of(const std::string &text) {
    const size_t dot = std::min(text.find('.'), text.size());
    return {NumberOf(text), NumberOf(std::string_view(text).substr(std::min(dot + 1, text.size())))};
}

Events::Events(std::vector<std::string> program, std::function<void()> onNews)
    : program_(std::move(program)), onNews_(std::move(onNews)), now_{FirstRun(), 0} {}

Events::~Events() {
    {
        const host::MutexLock lock(mutex_);
        stopping_ = true;
    }
    changed_.NotifyAll();
    if (thread_.joinable()) {
        thread_.join();
    }
}

bool Events::IsStopping() {
    const host::MutexLock lock(mutex_);
    return stopping_;
}

void Events::Run() {
    for (;;) {
        Follow();
        host::MutexLock lock(mutex_);
        if (changed_.WaitUntil(lock, std::chrono::steady_clock::now() + kRetry,
                               [this]() TARN_REQUIRES(mutex_) { return stopping_; })) {
            return;
        }
        now_ = {now_.run + 1, 0};
        events_.clear();
    }
}

// Until the program ends, or this.
void Events::Follow() {
    std::string problem;
    try {
        Child child(program_);
        std::string line;
        child.Read(
            [&](std::string_view piece) {
                Take(piece, line);
                return true;
            },
            {}, [this] { return !IsStopping(); });
        problem = child.Errors();
    } catch (const std::exception &error) {
        problem = error.what();
    }
    const host::MutexLock lock(mutex_);
    problem_ = problem.empty() ? "the journal is not followed any more" : problem;
    changed_.NotifyAll();
}

void Events::Take(std::string_view piece, std::string &line) {
    if (onNews_) {
        onNews_();
    }
    const host::MutexLock lock(mutex_);
    line += piece;
    size_t at = 0;
    for (size_t end = 0; (end = line.find('\n', at)) != line.npos; at = end + 1) {
        events_.push_back(line.substr(at, end - at));
        ++now_.next;
        if (events_.size() > kMostEvents) {
            events_.pop_front();
        }
    }
    line.erase(0, at);
    problem_.clear();
    changed_.NotifyAll();
}

Events::News Events::Next(const Place &place, const std::string &problem, std::chrono::milliseconds wait) {
    host::MutexLock lock(mutex_);
    if (!thread_.joinable() && !stopping_) {
        thread_ = std::thread([this] { Run(); });
    }
    changed_.WaitUntil(lock, std::chrono::steady_clock::now() + wait, [&]() TARN_REQUIRES(mutex_) {
        return stopping_ || place.run != now_.run || place.next < now_.next || problem != problem_;
    });
    News news{.isNew = place.run != now_.run, .place = now_, .events = {}, .problem = problem_};
    const uint64_t oldest = now_.next - events_.size();
    const uint64_t from = news.isNew ? oldest : std::clamp(place.next, oldest, now_.next);
    news.events.assign(events_.begin() + static_cast<std::ptrdiff_t>(from - oldest), events_.end());
    return news;
}

} // namespace web
