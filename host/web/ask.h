// The daemon's answers in the names of what they mean.
#pragma once

#include "host/describe/json.h"
#include "host/runtime/client.h"

namespace web {

// {"reply": {...}, "note": "why, or of what"}; or {"error": "what went wrong"}, and what the reply has all the same.
host::describe::Json Ask(host::Client &client, const char *method,
                         const host::describe::Json &request = host::describe::Json::object());

// The same of a method of the daemon's own, which takes JSON and answers with JSON.
host::describe::Json AskOwn(host::Client &client, const char *method, const host::describe::Json &question);

} // namespace web
