// The starter of helpers. The daemon executes it while it has all its rights, of which this keeps the few that it takes
// to become another user, since the daemon gives them up. It reads nothing but who is to be looked into.
#pragma once

namespace host::unwind {

// The exit status, when the daemon has gone.
int RunStarter();

} // namespace host::unwind
