// The memory of the system.
#include "host/answer/answer.h"
#include "host/procfs/procfs.h"
#include "server/tarnd.h"

uint32_t GetHugePagesInfo(const Tarn_sys_diag_None *, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_HugePagesOutput>(__func__, replyCtx, [](auto &reply) {
        const std::string text = host::procfs::ReadText("/proc/meminfo");
        reply.uiValue1 = static_cast<uint32_t>(host::procfs::FieldOf(text, "HugePages_Total"));
        reply.uiValue2 = static_cast<uint32_t>(host::procfs::FieldOf(text, "HugePages_Free"));
    });
}
