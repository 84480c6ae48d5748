// The daemon's journal, followed once for all who look.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "host/osal/mutex.h"

namespace web {

class Events {
public:
    // The program that prints the last events and those that come, a JSON object a line. It runs from the first viewer
    // on, and again when it has ended. Before viewers get to know of something, `onNews` is called.
    explicit Events(std::vector<std::string> program, std::function<void()> onNews = {});
    Events(const Events &) = delete;
    Events &operator=(const Events &) = delete;
    ~Events();

    // How far a viewer has read. Where it is of another run of the program, all begins anew.
    struct Place {
        uint64_t run = 0;
        uint64_t next = 0;

        std::string Text() const; // as an event's id travels
        static Place Of(const std::string &text);
    };

    struct News {
        bool isNew = false; // what was read before is void
        Place place;        // behind these
        std::vector<std::string> events;
        std::string problem; // why there are none at the moment; empty if there may be
    };
    // What is behind that place; waits so long for something, or for another problem than that.
    News Next(const Place &place, const std::string &problem, std::chrono::milliseconds wait);

private:
    void Run() TARN_EXCLUDES(mutex_);
    void Follow() TARN_EXCLUDES(mutex_);
    void Take(std::string_view piece, std::string &line) TARN_EXCLUDES(mutex_);
    bool IsStopping() TARN_EXCLUDES(mutex_);

    const std::vector<std::string> program_;
    const std::function<void()> onNews_;
    host::Mutex mutex_;
    host::Condition changed_;
    Place now_ TARN_GUARDED_BY(mutex_); // behind the newest
    std::deque<std::string> events_ TARN_GUARDED_BY(mutex_);
    std::string problem_ TARN_GUARDED_BY(mutex_);
    bool stopping_ TARN_GUARDED_BY(mutex_) = false;
    std::thread thread_; // once somebody has looked
};

} // namespace web
