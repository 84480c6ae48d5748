/* The daemon's service TarnSysdiagTarnd: what it is registered with, and its methods as in
 * tarn_sysdiag/server/service.h. */
#ifndef TARN_SERVER_TARND_H
#define TARN_SERVER_TARND_H

#include "tarn_sysdiag/server/service.h"
#include "tarn_sysdiag/types/tarnd.h"

#ifdef __cplusplus
extern "C" {
#endif

extern TARN_EXPORT const IdlModuleSpec __module_spec_TarnSysdiagTarnd;
extern TARN_EXPORT const IdlInterfaceEntry intf_tbl_TarnSysdiagTarnd[];
extern TARN_EXPORT const IdlMessageEntry msgdesc_tbl_TarnSysdiagTarnd[];

#define TARN_METHOD TARN_SERVED
#define TARN_METHOD_NO_REPLY TARN_SERVED_NO_REPLY
#include "tarn_sysdiag/server/tarnd_methods.h"

#ifdef __cplusplus
}
#endif

#endif
