// A program in C++ that calls through the host kit's runtime: there is no master, and the runtime says so.
#include <cstdio>
#include <cstring>

#include <tarn_sysdiag/client/master.h>
#include <tarn_sysdiag/host/call.h>

int main() {
    const Tarn_sys_diag_None in{};
    Tarn_sys_diag_DimTimeCfg out{};
    const IdlCallResult result = TarnSysdiagMaster_SysdiagGetDimCfgInfo(&in, &out, nullptr);
    std::printf("error %u: %s\n", static_cast<unsigned>(result.uiErrCode), TarnHost_LastError());
    return result.uiErrCode == 0 || std::strstr(TarnHost_LastError(), "TarnSysdiagMaster") == nullptr;
}
