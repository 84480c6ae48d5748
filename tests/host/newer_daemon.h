// A daemon with a method and types that nobody else knows.
#pragma once

#include "host/meaning/meaning.h"
#include "tarn_sysdiag/platform/rpc.h"

struct Tarn_sys_diag_FanInfo;

namespace newer {

extern const host::meaning::Service kDaemon; // its list
extern const IdlModuleSpec &kServiceSpec;    // its skeleton

// A reply, with something in each member.
const Tarn_sys_diag_FanInfo &Fans();

} // namespace newer
