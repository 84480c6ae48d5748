// Services for the runtime's tests: every method of the daemon and of an agent, each answering 38 until a test gives it
// something to do.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "tarn_sysdiag/platform/rpc.h"

// The agent's skeleton, in this process; the daemon's is the library's.
extern const IdlModuleSpec &served_module_spec_TarnSysdiagAgent;

namespace served {

using Handler = std::function<uint32_t(const void *request, void *replyCtx)>;

// What a method does from now on.
void On(const std::string &method, Handler handler);
void Reset();

// How often a response record of the method has been handed back to be released.
uint32_t Freed(const std::string &method);

} // namespace served
