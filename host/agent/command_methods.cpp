// Debug commands, asked for from outside.
#include <cerrno>

#include <fmt/format.h>

#include "host/agent/agent.h"
#include "host/agent/methods.h"

namespace agent {

namespace {

// Why the result is not 0, besides what the command has written.
std::string ReasonOf(const CommandResult &result) {
    if (result.number == 0) {
        return "no command has been taken";
    }
    return fmt::format("command {} {}", result.number,
                       result.result == EINPROGRESS ? "has not ended yet" : "ended with it");
}

} // namespace

uint32_t DBGCmdExecShow(const Tarn_sys_diag_DbgCmdShowInput *request) {
    return host::Run(host::methods::DBGCmdExecShow, request,
                     [&] { Agent::OfProcess().commands.Put(request->pcCmdStr == nullptr ? "" : request->pcCmdStr); });
}

uint32_t DBGCmdExecResultGet(const Tarn_sys_diag_DbgCmdResultGetInput *request, void *replyCtx) {
    return host::Answer(host::methods::DBGCmdExecResultGet, request, replyCtx, [](auto &reply) {
        CommandResult result = Agent::OfProcess().commands.Result();
        if (result.result != 0) {
            TarnHost_Explain(ReasonOf(result).c_str());
        }
        reply.uiResult = result.result;
        reply.uiValue = result.number;
        reply.szText = reply.Keep(std::move(result.text));
    });
}

uint32_t DBGCmdExecClean(const Tarn_sys_diag_DbgCmdCleanInput *request) {
    return host::Run(host::methods::DBGCmdExecClean, request, [] { Agent::OfProcess().commands.Clean(); });
}

} // namespace agent
