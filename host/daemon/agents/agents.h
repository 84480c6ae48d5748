// The agents that have registered with the daemon.
#pragma once

namespace tarnd {

// Has the agents looked after from time to time.
void WatchAgents();

} // namespace tarnd
