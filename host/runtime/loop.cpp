#include "host/runtime/loop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>

#include <cerrno>
#include <new>
#include <vector>

#include "host/osal/log.h"

namespace host {
namespace {

enum OwnId : uint64_t { kTasks, kTimers, kStop, kFirstFree };

void Signal(int eventFd) {
    const uint64_t one = 1;
    while (write(eventFd, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

} // namespace

Loop::Loop(const Clocks &clocks)
    : clocks_(clocks), epoll_(epoll_create1(EPOLL_CLOEXEC), "epoll_create1"),
      tasksComing_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd"),
      timerDue_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK), "timerfd_create"),
      stop_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd"), lastId_(kFirstFree) {
    const auto add = [this](int fd, uint32_t events, uint64_t id) {
        epoll_event event{events, {.u64 = id}};
        if (epoll_ctl(epoll_.Fd(), EPOLL_CTL_ADD, fd, &event) != 0) {
            Fail(errno, "epoll_ctl");
        }
    };
    add(tasksComing_.Fd(), EPOLLIN | EPOLLET, kTasks);
    add(timerDue_.Fd(), EPOLLIN | EPOLLET, kTimers);
    add(stop_.Fd(), EPOLLIN, kStop); // level-triggered, for whoever waits only after it
}

bool Loop::Add(int fd, uint32_t events, std::weak_ptr<Pollable> pollable, uint64_t &id) {
    {
        const MutexLock lock(mutex_);
        id = ++lastId_;
        pollables_.emplace(id, std::move(pollable));
    }
    epoll_event event{events | EPOLLET, {.u64 = id}};
    if (epoll_ctl(epoll_.Fd(), EPOLL_CTL_ADD, fd, &event) == 0) {
        return true;
    }
    const int error = errno;
    const MutexLock lock(mutex_);
    pollables_.erase(id);
    errno = error;
    return false;
}

void Loop::Change(int fd, uint32_t events, uint64_t id) {
    epoll_event event{events | EPOLLET, {.u64 = id}};
    epoll_ctl(epoll_.Fd(), EPOLL_CTL_MOD, fd, &event);
}

void Loop::Remove(int fd, uint64_t id) {
    epoll_ctl(epoll_.Fd(), EPOLL_CTL_DEL, fd, nullptr);
    const MutexLock lock(mutex_);
    pollables_.erase(id);
}

void Loop::Post(Task task) {
    {
        const MutexLock lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    Signal(tasksComing_.Fd());
}

template <class Work>
void Loop::Do(const Work &work) {
    try {
        work();
    } catch (const std::bad_alloc &) {
        Log().error("no memory for what a connection or a timer has caused");
    }
}

uint64_t Loop::At(Clock::time_point time, Task task) {
    const MutexLock lock(mutex_);
    const uint64_t id = ++lastId_;
    timers_.emplace(std::pair(time, id), std::move(task));
    timerTimes_.emplace(id, time);
    if (timers_.begin()->first.second == id) {
        SetTimer();
    }
    return id;
}

void Loop::CancelTimer(uint64_t timer) {
    Task last; // released outside of the lock
    const MutexLock lock(mutex_);
    const auto found = timerTimes_.find(timer);
    if (found != timerTimes_.end()) {
        const auto entry = timers_.find({found->second, timer});
        last = std::move(entry->second);
        timers_.erase(entry);
        timerTimes_.erase(found);
    }
}

void Loop::Run() {
    while (!Ended()) {
        epoll_event event;
        if (epoll_wait(epoll_.Fd(), &event, 1, -1) == 1) {
            OnEvent(event.data.u64, event.events);
        }
    }
    Signal(stop_.Fd()); // one write is not sure to wake more than one thread
}

void Loop::Stop() {
    stopping_ = true;
    Signal(stop_.Fd());
}

bool Loop::Ended() {
    if (!stopping_) {
        return false;
    }
    const MutexLock lock(mutex_);
    return tasks_.empty();
}

void Loop::OnEvent(uint64_t id, uint32_t events) {
    if (id == kTasks || id == kStop) {
        RunTask();
        return;
    }
    if (id == kTimers) {
        RunDue();
        return;
    }
    std::shared_ptr<Pollable> pollable;
    {
        const MutexLock lock(mutex_);
        const auto found = pollables_.find(id);
        pollable = found == pollables_.end() ? nullptr : found->second.lock();
    }
    if (pollable != nullptr) {
        Do([&] { pollable->OnReady(events); });
    }
}

// One task, which may take long; another thread takes the next.
void Loop::RunTask() {
    Task task;
    {
        const MutexLock lock(mutex_);
        if (tasks_.empty()) {
            return;
        }
        task = std::move(tasks_.front());
        tasks_.pop_front();
        if (!tasks_.empty()) {
            Signal(tasksComing_.Fd());
        }
    }
    Do(task);
}

void Loop::RunDue() {
    std::vector<Task> due;
    {
        const MutexLock lock(mutex_);
        const auto now = Now();
        while (!timers_.empty() && timers_.begin()->first.first <= now) {
            timerTimes_.erase(timers_.begin()->first.second);
            due.push_back(std::move(timers_.begin()->second));
            timers_.erase(timers_.begin());
        }
        if (!timers_.empty()) {
            SetTimer();
        }
    }
    for (const Task &task : due) {
        Do(task);
    }
}

// For the first timer.
void Loop::SetTimer() {
    const auto left = timers_.begin()->first.first - Now();
    const auto ns = std::max<int64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(left).count(), 1);
    itimerspec when{};
    when.it_value.tv_sec = static_cast<time_t>(ns / 1'000'000'000);
    when.it_value.tv_nsec = static_cast<long>(ns % 1'000'000'000);
    timerfd_settime(timerDue_.Fd(), 0, &when, nullptr);
}

} // namespace host
