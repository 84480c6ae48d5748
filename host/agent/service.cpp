// The agent's unit: codecs, wrappers and registration tables of TarnSysdiagAgent.
#include "host/agent/platform.h"
#include "host/answer/unit.h"
#include "server/frame.h"

TARN_UNIT()

#include "tarn_sysdiag/types/agent.h"

#include "host/agent/methods.h"
#include "host/agent/service.h"

namespace agent {

namespace {

#define TARN_METHOD TARN_REPLY_RELEASE
#define TARN_METHOD_NO_REPLY TARN_REPLY_RELEASE_NONE
#include "tarn_sysdiag/client/agent_methods.h"

#define TARN_SERVICE TarnSysdiagAgent
#define TARN_METHODS "tarn_sysdiag/client/agent_methods.h"
#include "server/tables.inc"

} // namespace

const IdlModuleSpec &kServiceSpec = __module_spec_TarnSysdiagAgent;

} // namespace agent
