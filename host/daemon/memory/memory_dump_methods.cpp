// The bytes in a process's memory.
#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/daemon/memory/memory_dump.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

void Check(const Tarn_sys_diag_DumpOsProcMemValueInput &request) {
    if (request.ullLength == 0 || request.ullLength > TARND_DUMP_MAX) {
        throw host::BadValue("ullLength", request.ullLength, fmt::format("1 to {}", TARND_DUMP_MAX));
    }
    if (request.ullAddress + request.ullLength < request.ullAddress) {
        throw host::BadValue("ullAddress", request.ullAddress, "an address with ullLength bytes behind it");
    }
}

} // namespace

} // namespace tarnd

uint32_t DumpOsProcMemValue(const Tarn_sys_diag_DumpOsProcMemValueInput *request, void *replyCtx) {
    return host::Answer(host::methods::DumpOsProcMemValue, request, replyCtx, [&](auto &reply) {
        tarnd::Check(*request);
        tarnd::MemoryDump dump = tarnd::DumpMemory(tarnd::Daemon::Serving().proc, request->uiPid, request->ullAddress,
                                                   static_cast<uint32_t>(request->ullLength));
        reply.uiValue1 = dump.bytesRead;
        reply.szValue = reply.Keep(std::move(dump.text));
    });
}
