// The server unit: codecs, wrappers and registration tables of the daemon's two services.
#include "server/frame.h"

TARN_UNIT()

#include "server/tarnd.h"
#include "server/tarnd_agent.h"

#define TARN_METHOD TARN_WRAPPER
#define TARN_METHOD_NO_REPLY TARN_WRAPPER_NO_REPLY
#include "server/tarnd_methods.h"

const IdlInterfaceEntry intf_tbl_TarnSysdiagTarnd[] = {
    TARN_RESERVED_INTERFACE_ENTRY,
#define TARN_METHOD TARN_INTERFACE_ENTRY
#define TARN_METHOD_NO_REPLY TARN_INTERFACE_ENTRY_NO_REPLY
#include "server/tarnd_methods.h"
};

const IdlMessageEntry msgdesc_tbl_TarnSysdiagTarnd[] = {
    TARN_RESERVED_MESSAGE_ENTRY,
#define TARN_METHOD TARN_MESSAGE_ENTRIES
#define TARN_METHOD_NO_REPLY TARN_MESSAGE_ENTRIES_NO_REPLY
#include "server/tarnd_methods.h"
};

const IdlModuleSpec __module_spec_TarnSysdiagTarnd = TARN_MODULE_SPEC(TarnSysdiagTarnd);

#define TARN_METHOD TARN_WRAPPER
#define TARN_METHOD_NO_REPLY TARN_WRAPPER_NO_REPLY
#include "server/tarnd_agent_methods.h"

const IdlInterfaceEntry intf_tbl_TarnSysdiagTarndAgent[] = {
    TARN_RESERVED_INTERFACE_ENTRY,
#define TARN_METHOD TARN_INTERFACE_ENTRY
#define TARN_METHOD_NO_REPLY TARN_INTERFACE_ENTRY_NO_REPLY
#include "server/tarnd_agent_methods.h"
};

const IdlMessageEntry msgdesc_tbl_TarnSysdiagTarndAgent[] = {
    TARN_RESERVED_MESSAGE_ENTRY,
#define TARN_METHOD TARN_MESSAGE_ENTRIES
#define TARN_METHOD_NO_REPLY TARN_MESSAGE_ENTRIES_NO_REPLY
#include "server/tarnd_agent_methods.h"
};

const IdlModuleSpec __module_spec_TarnSysdiagTarndAgent = TARN_MODULE_SPEC(TarnSysdiagTarndAgent);
