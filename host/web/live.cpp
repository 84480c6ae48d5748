#include "host/web/live.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

namespace web {

using host::describe::Json;

namespace {

constexpr size_t kMostTopics = 64;

// Whatever goes wrong is for whoever looks.
std::string TextOf(const std::function<Json()> &ask) {
    try {
        return ask().dump();
    } catch (const std::exception &error) {
        return Json{{"error", error.what()}}.dump();
    }
}

} // namespace

Live::Live(Topics topics) : topics_(std::move(topics)), thread_([this] { Run(); }) {}

Live::~Live() {
    {
        const host::MutexLock lock(mutex_);
        stopping_ = true;
    }
    changed_.NotifyAll();
    thread_.join();
}

// The one that has been due for longest, so that each has its turn where answers take long.
std::string Live::NameOfDue(Clock::time_point now) const {
    const auto due = std::ranges::min_element(states_, {}, [](const auto &one) { return one.second.due; });
    return due == states_.end() || due->second.due > now ? "" : due->first;
}

Live::Clock::time_point Live::NextDue() const {
    Clock::time_point next = Clock::now() + std::chrono::hours(1);
    for (const auto &[name, state] : states_) {
        next = std::min(next, state.due);
    }
    return next;
}

void Live::Run() {
    host::MutexLock lock(mutex_);
    while (!stopping_) {
        const std::string name = NameOfDue(Clock::now());
        if (name.empty()) {
            const auto next = NextDue();
            changed_.WaitUntil(lock, next, [&]() TARN_REQUIRES(mutex_) { return stopping_ || NextDue() < next; });
            continue;
        }
        State &asked = states_.at(name);
        asked.due = Clock::now() + asked.topic.every;
        const auto ask = asked.topic.ask;
        lock.Unlock();
        auto text = std::make_shared<const std::string>(TextOf(ask));
        lock.Lock();
        if (const auto state = states_.find(name); state != states_.end()) { // somebody still looks
            state->second.text = std::move(text);
            state->second.number = ++last_;
        }
        told_.NotifyAll();
    }
}

Live::View::View(Live &live, std::vector<std::string> names) : live_(live) {
    const host::MutexLock lock(live_.mutex_);
    std::ranges::sort(names);
    names.erase(std::unique(names.begin(), names.end()), names.end());
    std::map<std::string, Topic> topics;
    for (const std::string &name : names) {
        const auto topic = live_.topics_(name);
        if (!topic) {
            throw std::invalid_argument(fmt::format("{}: no such topic", name));
        }
        topics.emplace(name, *topic);
    }
    if (live_.states_.size() + topics.size() > kMostTopics) {
        throw std::invalid_argument("too much is looked at already");
    }
    for (const auto &[name, topic] : topics) {
        ++live_.states_.try_emplace(name, State{topic, 0, Clock::now()}).first->second.viewers;
        seen_[name] = 0;
    }
    live_.changed_.NotifyAll();
}

Live::View::~View() {
    const host::MutexLock lock(live_.mutex_);
    for (const auto &[name, number] : seen_) {
        const auto state = live_.states_.find(name);
        if (--state->second.viewers == 0) {
            live_.states_.erase(state);
        }
    }
}

std::vector<Live::View::Answer> Live::View::Fresh() {
    std::vector<Answer> answers;
    for (auto &[name, number] : seen_) {
        const State &state = live_.states_.at(name);
        if (state.number > number) {
            number = state.number;
            answers.push_back({name, state.text});
        }
    }
    return answers;
}

std::vector<Live::View::Answer> Live::View::Next(std::chrono::milliseconds wait) {
    host::MutexLock lock(live_.mutex_);
    std::vector<Answer> answers;
    live_.told_.WaitUntil(lock, Clock::now() + wait, [&]() TARN_REQUIRES(live_.mutex_) {
        answers = Fresh();
        return !answers.empty() || live_.stopping_;
    });
    return answers;
}

} // namespace web
