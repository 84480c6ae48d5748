// The agent's unit: codecs, wrappers and registration tables of TarnSysdiagAgent, and the methods themselves.
#include "host/answer/unit.h"
#include "server/frame.h"

TARN_UNIT()

#include "types/agent.h"

#include "host/agent/service.h"
#include "host/answer/answer.h"

namespace agent {

namespace {

Runner *servedRunner = nullptr;

#define AGENT_IMPLEMENTS_DBGCmdExecShow ~,
#define AGENT_IMPLEMENTS_DBGCmdExecResultGet ~,
#define AGENT_IMPLEMENTS_DBGCmdExecClean ~,

#define TARN_METHOD(method, request, response) TARN_UNIMPLEMENTED(method, request, response, AGENT_IMPLEMENTS_##method)
#define TARN_METHOD_NO_REPLY(method, request) TARN_UNIMPLEMENTED_NO_REPLY(method, request, AGENT_IMPLEMENTS_##method)
#include "client/agent_methods.h"

uint32_t DBGCmdExecShow(const Tarn_sys_diag_DbgCmdShowInput *request) {
    return host::Run(__func__, [&] { servedRunner->Show(request->pcCmdStr == nullptr ? "" : request->pcCmdStr); });
}

uint32_t DBGCmdExecResultGet(const Tarn_sys_diag_DbgCmdResultGetInput *, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_DiagResult>(__func__, replyCtx, [](auto &reply) {
        CommandResult result = servedRunner->Result();
        reply.uiResult = result.result;
        reply.uiValue = result.number;
        reply.szText = reply.Keep(std::move(result.text));
    });
}

uint32_t DBGCmdExecClean(const Tarn_sys_diag_DbgCmdCleanInput *) {
    return host::Run(__func__, [] { servedRunner->Clean(); });
}

#define TARN_METHOD TARN_WRAPPER
#define TARN_METHOD_NO_REPLY TARN_WRAPPER_NO_REPLY
#include "client/agent_methods.h"

const IdlInterfaceEntry intf_tbl_TarnSysdiagAgent[] = {
    TARN_RESERVED_INTERFACE_ENTRY,
#define TARN_METHOD TARN_INTERFACE_ENTRY
#define TARN_METHOD_NO_REPLY TARN_INTERFACE_ENTRY_NO_REPLY
#include "client/agent_methods.h"
};

const IdlMessageEntry msgdesc_tbl_TarnSysdiagAgent[] = {
    TARN_RESERVED_MESSAGE_ENTRY,
#define TARN_METHOD TARN_MESSAGE_ENTRIES
#define TARN_METHOD_NO_REPLY TARN_MESSAGE_ENTRIES_NO_REPLY
#include "client/agent_methods.h"
};

} // namespace

const IdlModuleSpec kServiceSpec = TARN_MODULE_SPEC(TarnSysdiagAgent);

void ServeCommandsOf(Runner *runner) {
    servedRunner = runner;
}

} // namespace agent
