// What main does while its server serves: it takes signals, and tells the service manager how that goes.
#pragma once

#include <functional>
#include <string_view>

#include "host/runtime/server.h"
#include "host/serve/serve.h"

namespace host {

// To be called before the first thread starts, so that every thread inherits it and only the main loop takes signals.
void BlockSignals();

// Until SIGINT or SIGTERM, which it returns.
int AwaitEnd();

// A program whose server has started.
struct Serving {
    const ServeOptions &options;
    Server &server;
    std::string_view service;          // one of the server's
    std::function<void()> reload = {}; // of files besides the log and the policy
};

// Until SIGINT or SIGTERM; then it stops the server. At SIGHUP the log is opened anew and files are read again: a
// mistake in one is logged and told by the server's status, and what was in force before holds. Ends the process when a
// request is still being worked on after the bound: its thread uses what the end of main would destroy.
void RunMainLoop(const Serving &serving);

} // namespace host
