// The library's codecs of the measured types, as pointers: nobody can inline them, just as the runtime can't.
#pragma once

#include <vector>

#include "tarn_sysdiag/platform/rpc.h"

// Calls what(Type) for each type measured.
#define BENCH_TYPES(what)                                                                                              \
    what(Result) what(PidIsOnlineOuput) what(DisCpuOvloadRet) what(SetDstInput) what(SysCpuStatInfo)                   \
        what(CallStackContext) what(DumpOsProcMemValueResult) what(Tids) what(MemLeakQryOut)                           \
            what(SysMemStatisFileResult)

namespace bench {

// The library's codecs of a measured type, as the runtime gets them.
struct Codecs {
    const char *type;
    VeltoPackFn pack;
    VeltoUnpackFn unpack;
    VeltoFreeFn release;
    VeltoFixedPackFn packFixed; // null, as below, for a type without fixed form
    VeltoFixedSizeFn fixedSize;
};
const std::vector<Codecs> &VeltoCodecs();
const std::vector<Codecs> &UnswappedCodecs(); // built without the byte-swapped branch

} // namespace bench
