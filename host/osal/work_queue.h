// Work that threads of its own do, each when it is due; that which has been due for longest first.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

namespace host {

class WorkQueue {
public:
    using Clock = std::chrono::steady_clock;
    // What it throws is logged. The token says that the queue ends: work that takes long looks at it.
    using Work = std::function<void(const std::stop_token &stop)>;

    // At most so many threads, which are started when there is work for them. The name is theirs, and the log's.
    explicit WorkQueue(std::string name, size_t maxThreads = 1);

    // Waits for work that runs. What is not due yet, or was not begun, is not done.
    ~WorkQueue();
    WorkQueue(const WorkQueue &) = delete;
    WorkQueue &operator=(const WorkQueue &) = delete;

    void Post(Work work) { PostAt(Clock::now(), std::move(work)); }
    void PostAt(Clock::time_point due, Work work);

private:
    void AddThread();
    void Run(const std::stop_token &stop);

    const std::string name_;
    const size_t maxThreads_;
    std::mutex mutex_;
    std::condition_variable_any wake_;
    std::multimap<Clock::time_point, Work> due_; // in the order of posting where the time is the same
    uint64_t posted_ = 0;
    size_t idle_ = 0; // threads that wait
    bool ends_ = false;
    std::vector<std::jthread> threads_;
};

} // namespace host
