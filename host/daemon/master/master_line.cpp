#include "host/daemon/master/master_line.h"

#include <cerrno>

#include <fmt/format.h>

#include "host/osal/attempt.h"
#include "host/osal/log.h"

namespace tarnd {

void MasterLine::Call(const char *name, const PeerCall &call, const std::function<void()> &take) {
    const IdlCallResult result = peers_.Call(call);
    if (result.uiErrCode != 0) {
        throw MasterUnreachable(fmt::format("{}: {}", name, peers_.LastError()));
    }
    if (result.uiStatus == ENODATA || result.uiStatus == ENOENT) {
        host::Log().debug("{}: not configured on the master", name);
    } else if (result.uiStatus != 0) {
        host::Log().warn("{}: {}", name, peers_.LastError());
    } else {
        host::Attempt(name, take);
    }
}

void MasterLine::Send(const PeerCall &call) {
    if (peers_.Call(call).uiErrCode != 0) {
        throw MasterUnreachable(peers_.LastError());
    }
}

} // namespace tarnd
