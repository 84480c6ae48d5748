// The host's runtime: a method whose reply is a text, from the handler's record to the caller's.
#include "host/answer/unit.h"
#include "server/frame.h"

TARN_UNIT()

#include "tarn_sysdiag/types/agent.h"

#include <unistd.h>

#include <stdexcept>
#include <vector>

#include "bench/roundtrip.h"
#include "host/runtime/client.h"
#include "host/runtime/server.h"
#include "tarn_sysdiag/host/reply.h"

namespace {

std::string text;

uint32_t DBGCmdExecResultGet(const Tarn_sys_diag_DbgCmdResultGetInput *, void *replyCtx) {
    Tarn_sys_diag_DiagResult reply{0, 1, text.data()};
    return TarnHost_Reply(replyCtx, &reply);
}

void DBGCmdExecResultGet_free(Tarn_sys_diag_DiagResult *) {}

TARN_WRAPPER(DBGCmdExecResultGet, DbgCmdResultGetInput, DiagResult)

const IdlInterfaceEntry intf_tbl_TarnSysdiagAgent[] = {
    TARN_RESERVED_INTERFACE_ENTRY, TARN_INTERFACE_ENTRY(DBGCmdExecResultGet, DbgCmdResultGetInput, DiagResult)};
const IdlMessageEntry msgdesc_tbl_TarnSysdiagAgent[] = {
    TARN_RESERVED_MESSAGE_ENTRY, TARN_MESSAGE_ENTRIES(DBGCmdExecResultGet, DbgCmdResultGetInput, DiagResult)};
const IdlModuleSpec spec = TARN_MODULE_SPEC(TarnSysdiagAgent);

using RequestCodec = velto::Codec<Unit, Tarn_sys_diag_DbgCmdResultGetInput>;
using ReplyCodec = velto::Codec<Unit, Tarn_sys_diag_DiagResult>;

} // namespace

namespace bench {
namespace {

// All callers share the process's client, as proxies do.
class RuntimeCaller final : public Caller {
public:
    RuntimeCaller(const std::string &directory, int serverPid) : pid_(static_cast<uint32_t>(serverPid)) {
        static std::string current;
        if (current != directory) {
            current = directory;
            host::Client::Default().Configure({.runDir = directory});
        }
    }

    size_t Call() override {
        const Tarn_sys_diag_DbgCmdResultGetInput input{};
        uint8_t request[64];
        uint32_t capacity = sizeof request;
        const VeltoOutBuf out{request, &capacity};
        const uint32_t size = RequestCodec::kPack(&out, &input);
        host::CallOutcome outcome = host::Client::Default().Call("TarnSysdiagAgent", pid_, "DBGCmdExecResultGet",
                                                                 velto::kTypeHash<Tarn_sys_diag_DbgCmdResultGetInput>,
                                                                 std::span(request).first(size));
        Tarn_sys_diag_DiagResult reply{};
        if (!outcome.Ok() ||
            ReplyCodec::kUnpack(outcome.bytes.data(), static_cast<uint32_t>(outcome.bytes.size()), &reply) == nullptr) {
            throw std::runtime_error("runtime: " + outcome.text);
        }
        const size_t length = strlen(reply.szText);
        ReplyCodec::kFreeUnpacked(&reply);
        return length;
    }

private:
    const uint32_t pid_;
};

class Runtime final : public System {
public:
    const char *Name() const override { return "runtime"; }

    void Serve(const std::string &directory, size_t size) const override {
        text.assign(size, 'x');
        host::Server server({.runDir = directory, .workers = 8});
        server.AddService(spec);
        server.Start();
        while (true) {
            pause();
        }
    }

    std::unique_ptr<Caller> Connect(const std::string &directory, int serverPid) const override {
        return std::make_unique<RuntimeCaller>(directory, serverPid);
    }
};

} // namespace

const System &RuntimeSystem() {
    static const Runtime system;
    return system;
}

} // namespace bench
