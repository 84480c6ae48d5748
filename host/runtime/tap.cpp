#include "host/runtime/tap.h"

#include <algorithm>
#include <utility>

namespace host {

std::unique_ptr<Tap::Reader> Tap::Open() {
    const MutexLock lock(mutex_);
    if (queues_.size() >= kMostReaders) {
        return nullptr;
    }
    auto reader = std::make_unique<Reader>(*this);
    queues_.try_emplace(reader.get());
    used_ = true;
    return reader;
}

Tap::Reader::~Reader() {
    const MutexLock lock(tap_.mutex_);
    tap_.queues_.erase(this);
    tap_.used_ = !tap_.queues_.empty();
}

void Tap::Add(TappedFrame frame, std::span<const uint8_t> head, std::span<const uint8_t> payload) {
    std::vector<uint8_t> bytes(head.begin(), head.end());
    const size_t kept = std::min(payload.size(), kMostOfFrame - std::min(kMostOfFrame, head.size()));
    bytes.insert(bytes.end(), payload.begin(), payload.begin() + static_cast<ptrdiff_t>(kept));
    frame.bytes = bytes;
    const std::string text = TextOf(frame);
    const MutexLock lock(mutex_);
    for (auto &[reader, queue] : queues_) {
        if (queue.bytes + text.size() > kMostWaiting) {
            ++queue.dropped;
            continue;
        }
        queue.frames.push_back(text);
        queue.bytes += text.size();
    }
}

std::string Tap::Reader::Take() {
    const MutexLock lock(tap_.mutex_);
    Queue &queue = tap_.queues_.at(this);
    std::string answer = TextOf(std::exchange(queue.dropped, 0));
    while (!queue.frames.empty() && answer.size() + queue.frames.front().size() <= kMostAtOnce) {
        queue.bytes -= queue.frames.front().size();
        answer += queue.frames.front();
        queue.frames.pop_front();
    }
    return answer;
}

} // namespace host
