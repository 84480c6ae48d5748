// Which processes there are, and in what state.
#include <csignal>

#include "host/answer/answer.h"
#include "host/procfs/procfs.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

// A process that may not be looked into still is there, which the refusal to signal it tells.
bool IsOnline(uint32_t pid) {
    if (pid == 0 || pid > INT32_MAX) {
        return false; // kill would take these as groups of processes
    }
    if (kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) {
        return false;
    }
    try {
        return !host::procfs::ReadProcess(pid).HasEnded();
    } catch (const std::system_error &error) {
        if (error.code().value() == EACCES) {
            return true;
        }
        if (error.code().value() == ESRCH) {
            return false;
        }
        throw;
    }
}

} // namespace

} // namespace tarnd

uint32_t PidIsOnline(const Tarn_sys_diag_PidIsOnlineInput *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_PidIsOnlineOuput>(__func__, replyCtx, [&](auto &reply) {
        reply.uiPid = request->uiPid;
        reply.ucIsOnline = tarnd::IsOnline(request->uiPid) ? 1 : 0;
    });
}

uint32_t GetProcStatByPid(const Tarn_sys_diag_ProcessStatusInput *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_ProcessStatusOutput>(__func__, replyCtx, [&](auto &reply) {
        reply.ucStatus = static_cast<uint8_t>(host::procfs::ReadProcess(request->uiPid).state);
    });
}

uint32_t GetAllTidsByPid(const Tarn_sys_diag_Pid *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_Tids>(__func__, replyCtx, [&](auto &reply) {
        reply.puiTids = reply.Keep(host::procfs::ThreadIds(request->uiPid), reply.uiTidNum);
    });
}
