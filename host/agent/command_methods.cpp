// Debug commands, asked for from outside.
#include "host/agent/agent.h"
#include "host/agent/methods.h"

namespace agent {

uint32_t DBGCmdExecShow(const Tarn_sys_diag_DbgCmdShowInput *request) {
    return host::Run(host::methods::DBGCmdExecShow, request,
                     [&] { Agent::OfProcess().commands.Put(request->pcCmdStr == nullptr ? "" : request->pcCmdStr); });
}

uint32_t DBGCmdExecResultGet(const Tarn_sys_diag_DbgCmdResultGetInput *request, void *replyCtx) {
    return host::Answer(host::methods::DBGCmdExecResultGet, request, replyCtx, [](auto &reply) {
        CommandResult result = Agent::OfProcess().commands.Result();
        reply.uiResult = result.result;
        reply.uiValue = result.number;
        reply.szText = reply.Keep(std::move(result.text));
    });
}

uint32_t DBGCmdExecClean(const Tarn_sys_diag_DbgCmdCleanInput *request) {
    return host::Run(host::methods::DBGCmdExecClean, request, [] { Agent::OfProcess().commands.Clean(); });
}

} // namespace agent
