// What the master tells the daemon.
#include "host/daemon/daemon.h"
#include "host/osal/log.h"
#include "tarn_sysdiag/server/tarnd.h"

uint32_t DetectTarndServerOnline(const Tarn_sys_diag_None *) {
    host::Log().debug("{}: a peer is there, or has something new", __func__);
    tarnd::Daemon::Serving().masterLink.Greet();
    return 0;
}
