// Which processes there are, and in what state.
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/store/files.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace tarnd {

namespace {

// Any process has a descriptor, also one that /proc hides, and no thread has one but the first. It can be read from
// when the process has ended.
bool IsOnline(uint32_t pid) {
    const int fd = static_cast<int>(syscall(SYS_pidfd_open, static_cast<pid_t>(pid), 0));
    if (fd < 0 && (errno == ESRCH || errno == EINVAL || errno == ENOENT)) {
        return false;
    }
    const host::Descriptor process(fd, fmt::format("process {}", pid));
    pollfd ended{process.Fd(), POLLIN, 0};
    return poll(&ended, 1, 0) == 0;
}

} // namespace

} // namespace tarnd

uint32_t PidIsOnline(const Tarn_sys_diag_PidIsOnlineInput *request, void *replyCtx) {
    return host::Answer(host::methods::PidIsOnline, request, replyCtx, [&](auto &reply) {
        reply.uiPid = request->uiPid;
        reply.ucIsOnline = tarnd::IsOnline(request->uiPid) ? 1 : 0;
    });
}

uint32_t GetProcStatByPid(const Tarn_sys_diag_ProcessStatusInput *request, void *replyCtx) {
    return host::Answer(host::methods::GetProcStatByPid, request, replyCtx, [&](auto &reply) {
        reply.ucStatus = static_cast<uint8_t>(tarnd::Daemon::Serving().proc.ReadProcess(request->uiPid).state);
    });
}

uint32_t GetAllTidsByPid(const Tarn_sys_diag_Pid *request, void *replyCtx) {
    return host::Answer(host::methods::GetAllTidsByPid, request, replyCtx, [&](auto &reply) {
        reply.puiTids = reply.Keep(tarnd::Daemon::Serving().proc.ThreadIds(request->uiPid), reply.uiTidNum);
    });
}
