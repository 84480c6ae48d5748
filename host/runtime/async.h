// The asynchronous calls of a client: one thread, one connection to each target, and every call ended exactly once.
#pragma once

#include <functional>
#include <memory>

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
    class Core;
    const std::unique_ptr<Core> core_;
};

} // namespace host
