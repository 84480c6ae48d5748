// Copies of the frames that a server receives and sends, for those who capture them. While nobody does, a frame costs a
// look at a flag.
#pragma once

#include <atomic>
#include <deque>
#include <map>
#include <memory>

#include "host/osal/mutex.h"
#include "host/runtime/tapped_frame.h"

namespace host {

class Tap {
public:
    static constexpr size_t kMostReaders = 4;
    static constexpr size_t kMostWaiting = 4 << 20;   // bytes for a reader: what does not fit is dropped and counted
    static constexpr size_t kMostOfFrame = 256 << 10; // bytes of a frame that are kept
    static constexpr size_t kMostAtOnce = 1 << 20;    // bytes of an answer

    // Gets what is tapped from when it is opened on until it is gone. The tap outlives it.
    class Reader {
    public:
        explicit Reader(Tap &tap) : tap_(tap) {}
        Reader(const Reader &) = delete;
        Reader &operator=(const Reader &) = delete;
        ~Reader();

        // The answer of Capture with what has come since the one before.
        std::string Take();

    private:
        Tap &tap_;
    };

    bool IsUsed() const { return used_.load(std::memory_order_relaxed); }
    uint64_t NextConnection() { return lastConnection_.fetch_add(1, std::memory_order_relaxed) + 1; }

    // Null where there are as many as there may be.
    std::unique_ptr<Reader> Open() TARN_EXCLUDES(mutex_);

    // The bytes may be in two pieces, and be more than are kept.
    void Add(TappedFrame frame, std::span<const uint8_t> head, std::span<const uint8_t> payload) TARN_EXCLUDES(mutex_);

private:
    struct Queue {
        std::deque<std::string> frames;
        size_t bytes = 0;
        uint64_t dropped = 0;
    };

    std::atomic<bool> used_ = false;
    std::atomic<uint64_t> lastConnection_ = 0;
    Mutex mutex_;
    std::map<const Reader *, Queue> queues_ TARN_GUARDED_BY(mutex_);
};

} // namespace host
