// Calls that take long, as a person waits for them.
#pragma once

#include "host/ctl/progress.h"
#include "host/runtime/client.h"

namespace ctl {

// Shows meanwhile that it runs. Ctrl-C cancels it, at the server as well: throws Interrupted.
host::CallOutcome CallAndShow(host::Client &client, const host::CallRequest &call, Progress &progress);

} // namespace ctl
