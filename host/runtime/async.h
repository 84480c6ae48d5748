// The asynchronous calls of a client: one thread, one connection to each target, and every call ended exactly once.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "host/osal/mutex.h"
#include "host/runtime/link.h"
#include "host/runtime/outgoing.h"

namespace host {

class AsyncCalls {
public:
    using Done = std::function<void(CallOutcome &&)>;

    AsyncCalls(std::shared_ptr<const Transport> transport, const Limits &limits);
    AsyncCalls(const AsyncCalls &) = delete;
    AsyncCalls &operator=(const AsyncCalls &) = delete;
    ~AsyncCalls();

    // `frame` is the whole of it. After Shutdown has begun, calls back at once.
    void Start(Outgoing call, std::vector<uint8_t> frame, Done done);

    // Gives up a call that has not ended.
    void Cancel(uint64_t id);

    // Ends a call that never was, on the thread that ends the others.
    void Fail(CallOutcome &&outcome, Done done);

    // Ends all calls with ECANCELED, closes, and waits for the thread.
    void Shutdown();

private:
    struct Pending {
        Outgoing call;
        Done done;
        std::shared_ptr<Link> link;
        uint64_t timer;
    };
    class Connection;

    int Post(std::function<void()> work) TARN_EXCLUDES(mutex_);
    void Begin(Outgoing &&call, std::vector<uint8_t> &&frame, Done &&done);
    // Null, and why in what is passed.
    std::shared_ptr<Link> LinkTo(const Outgoing &call, Connected &failed);
    void End(uint64_t id, CallOutcome &&outcome);
    void GiveUp(uint64_t id, const std::function<CallOutcome(const Outgoing &)> &outcome);
    void EndAll(const Link *link, const std::function<CallOutcome(const Outgoing &)> &outcome);
    void Forget(const Link *link);
    void CloseAll();

    const std::shared_ptr<const Transport> transport_;
    const Limits limits_;
    Mutex mutex_;
    std::thread thread_ TARN_GUARDED_BY(mutex_);
    bool stopping_ TARN_GUARDED_BY(mutex_) = false;

    // --- The thread's, which the first call starts

    const SystemClocks clocks_;
    std::optional<Loop> loop_;
    std::unordered_map<uint64_t, Pending> pending_;
    std::unordered_map<std::string, std::shared_ptr<Connection>> links_; // by address
};

} // namespace host
