// Locks that clang's thread-safety analysis knows: what a lock guards is declared, and checked by the clang preset. For
// other compilers the declarations are documentation.
#pragma once

#include <condition_variable>
#include <mutex>
#include <utility>

#if defined(__clang__)
#define TARN_THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define TARN_THREAD_ATTRIBUTE(attribute)
#endif

// Of a class.
#define TARN_CAPABILITY(name) TARN_THREAD_ATTRIBUTE(capability(name))
#define TARN_SCOPED_CAPABILITY TARN_THREAD_ATTRIBUTE(scoped_lockable)

// Of a member: read and written with the lock held only. PT: so is what it points to.
#define TARN_GUARDED_BY(mutex) TARN_THREAD_ATTRIBUTE(guarded_by(mutex))
#define TARN_PT_GUARDED_BY(mutex) TARN_THREAD_ATTRIBUTE(pt_guarded_by(mutex))

// Of a function, also of a lambda behind its parameters: called with the locks held, or with none of them held.
#define TARN_REQUIRES(...) TARN_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define TARN_EXCLUDES(...) TARN_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))

// Of a function that takes the locks, or gives them back.
#define TARN_ACQUIRE(...) TARN_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TARN_TRY_ACQUIRE(...) TARN_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define TARN_RELEASE(...) TARN_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define TARN_RETURN_CAPABILITY(mutex) TARN_THREAD_ATTRIBUTE(lock_returned(mutex))

// Of a function that the analysis can't follow.
#define TARN_NO_THREAD_SAFETY_ANALYSIS TARN_THREAD_ATTRIBUTE(no_thread_safety_analysis)

namespace host {

class TARN_CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex &) = delete;
    Mutex &operator=(const Mutex &) = delete;

    void Lock() TARN_ACQUIRE() { mutex_.lock(); }
    bool TryLock() TARN_TRY_ACQUIRE(true) { return mutex_.try_lock(); }
    void Unlock() TARN_RELEASE() { mutex_.unlock(); }

private:
    friend class MutexLock;
    std::mutex mutex_;
};

// Holds a mutex while it lives, but between Unlock and Lock.
class TARN_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex &mutex) TARN_ACQUIRE(mutex) : lock_(mutex.mutex_) {}
    MutexLock(const MutexLock &) = delete;
    MutexLock &operator=(const MutexLock &) = delete;
    ~MutexLock() TARN_RELEASE() = default;

    void Lock() TARN_ACQUIRE() { lock_.lock(); }
    void Unlock() TARN_RELEASE() { lock_.unlock(); }

private:
    friend class Condition;
    std::unique_lock<std::mutex> lock_;
};

// Waits with a mutex held, which is free meanwhile. A predicate that reads guarded members declares that it does:
//
//     changed_.Wait(lock, [this]() TARN_REQUIRES(mutex_) { return count_ == 0; });
class Condition {
public:
    void NotifyOne() { condition_.notify_one(); }
    void NotifyAll() { condition_.notify_all(); }

    void Wait(MutexLock &lock) { condition_.wait(lock.lock_); }

    template <class Predicate>
    void Wait(MutexLock &lock, Predicate predicate) TARN_NO_THREAD_SAFETY_ANALYSIS {
        condition_.wait(lock.lock_, std::move(predicate));
    }

    // False when the time has come and the predicate is still false.
    template <class Time, class Predicate>
    bool WaitUntil(MutexLock &lock, const Time &time, Predicate predicate) TARN_NO_THREAD_SAFETY_ANALYSIS {
        return condition_.wait_until(lock.lock_, time, std::move(predicate));
    }

private:
    std::condition_variable condition_;
};

} // namespace host
