// What the daemon adds to the runtime's own service: methods that take JSON and answer with JSON.
#pragma once

#include <chrono>
#include <string_view>

#include "host/describe/json.h"
#include "host/runtime/client.h"

namespace ctl {

// Where the daemon is to wait for news, so long. Throws Failure.
host::describe::Json AskOwnService(host::Client &client, std::string_view method,
                                   const host::describe::Json &question = host::describe::Json::object(),
                                   std::chrono::milliseconds wait = {});

// The CPU overloads that are kept: the system's, then those of watched processes, the newest of each first.
host::describe::Json CpuOverloads(host::Client &client);

// The same one with its threads, where the caller may see them.
host::describe::Json WithThreads(host::Client &client, const host::describe::Json &overload);

} // namespace ctl
