// Who is there: the daemon and the master tell each other.
#pragma once

namespace tarnd {

// Announces the daemon to the master and takes over its time zone. Without a master the daemon runs all the same, and
// says so in the log.
void GreetMaster();

} // namespace tarnd
