/* The service TarnSysdiagTarndAgent, through which agents reach the daemon: as tarn_sysdiag/server/tarnd.h. */
#ifndef TARN_SERVER_TARND_AGENT_H
#define TARN_SERVER_TARND_AGENT_H

#include "tarn_sysdiag/server/service.h"
#include "tarn_sysdiag/types/tarnd_agent.h"

#ifdef __cplusplus
extern "C" {
#endif

extern TARN_EXPORT const IdlModuleSpec __module_spec_TarnSysdiagTarndAgent;
extern TARN_EXPORT const IdlInterfaceEntry intf_tbl_TarnSysdiagTarndAgent[];
extern TARN_EXPORT const IdlMessageEntry msgdesc_tbl_TarnSysdiagTarndAgent[];

#define TARN_METHOD TARN_SERVED
#define TARN_METHOD_NO_REPLY TARN_SERVED_NO_REPLY
#include "tarn_sysdiag/server/tarnd_agent_methods.h"

#ifdef __cplusplus
}
#endif

#endif
