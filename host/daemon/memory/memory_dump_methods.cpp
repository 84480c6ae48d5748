// The bytes in a process's memory.
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/daemon/memory/memory_dump.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace tarnd {

namespace {

void CheckRange(const Tarn_sys_diag_DumpOsProcMemValueInput &request) {
    if (request.ullAddress + request.ullLength < request.ullAddress) {
        throw host::meaning::BadMember(host::methods::DumpOsProcMemValue, "address", request.ullAddress,
                                       "an address with the whole range behind it");
    }
}

} // namespace

} // namespace tarnd

uint32_t DumpOsProcMemValue(const Tarn_sys_diag_DumpOsProcMemValueInput *request, void *replyCtx) {
    return host::Answer(host::methods::DumpOsProcMemValue, request, replyCtx, [&](auto &reply) {
        tarnd::CheckRange(*request);
        tarnd::MemoryDump found = tarnd::DumpMemory(tarnd::Daemon::Serving().proc, request->uiPid, request->ullAddress,
                                                    static_cast<uint32_t>(request->ullLength));
        auto &[dump, read] = reply.Members();
        dump = reply.Keep(std::move(found.text));
        read = found.bytesRead;
    });
}
