// A change of a setting, for the journal.
#pragma once

#include "host/daemon/history/event.h"
#include "host/meaning/meaning.h"
#include "host/procfs/procfs.h"
#include "host/runtime/policy.h"

namespace tarnd {

// What was set, and by whom.
Event SettingEvent(const host::procfs::Procfs &proc, const host::Peer &peer, const host::meaning::Method &method,
                   const void *request);

} // namespace tarnd
