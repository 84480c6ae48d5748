// An agent in the test's own process, whose methods do what a test says; those of which it says nothing answer 38. To
// be included by one file of a test, after its unit and tarn_sysdiag/types/agent.h.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "host/runtime/server.h"
#include "server/frame.h"
#include "tarn_sysdiag/host/reply.h"
#include "tarn_sysdiag/types/agent.h"
#include "tarn_sysdiag/types/tarnd_agent.h"
#include "tests/host/kit.h"

namespace {

namespace fake {

using Handler = std::function<uint32_t(const void *request, void *replyCtx)>;
std::mutex mutex;
std::map<std::string, Handler> handlers;

uint32_t Handle(const char *method, const void *request, void *replyCtx) {
    Handler handler;
    {
        const std::lock_guard lock(mutex);
        const auto found = handlers.find(method);
        if (found == handlers.end()) {
            return ENOSYS;
        }
        handler = found->second;
    }
    return handler(request, replyCtx);
}

} // namespace fake

#define TARN_METHOD(method, request, response)                                                                         \
    uint32_t method(const Tarn_sys_diag_##request *record, void *replyCtx) {                                           \
        return fake::Handle(#method, record, replyCtx);                                                                \
    }                                                                                                                  \
    void method##_free(Tarn_sys_diag_##response *) {}
#define TARN_METHOD_NO_REPLY(method, request)                                                                          \
    uint32_t method(const Tarn_sys_diag_##request *record) {                                                           \
        return fake::Handle(#method, record, nullptr);                                                                 \
    }
#include "tarn_sysdiag/client/agent_methods.h"

#define TARN_SERVICE TarnSysdiagAgent
#define TARN_METHODS "tarn_sysdiag/client/agent_methods.h"
#include "server/tables.inc"

class FakeAgent {
public:
    explicit FakeAgent(const std::filesystem::path &runDir) : server_({.runDir = runDir}) {
        server_.AddService(__module_spec_TarnSysdiagAgent);
        server_.Start();
    }
    ~FakeAgent() {
        server_.Stop();
        const std::lock_guard lock(fake::mutex);
        fake::handlers.clear();
    }

    // What a method does with its request, and the record that it answers with.
    template <class Request, class Response>
    void On(const std::string &method, std::function<void(const Request &, Response &)> fill) {
        const std::lock_guard lock(fake::mutex);
        fake::handlers[method] = [fill](const void *request, void *replyCtx) {
            Response response{};
            fill(*static_cast<const Request *>(request), response);
            return TarnHost_Reply(replyCtx, &response);
        };
    }
    // The same for a method that is not answered.
    template <class Request>
    void OnOneway(const std::string &method, std::function<void(const Request &)> take) {
        const std::lock_guard lock(fake::mutex);
        fake::handlers[method] = [take](const void *request, void *) {
            take(*static_cast<const Request *>(request));
            return 0U;
        };
    }

    // Registers with the daemon: the result.
    static uint32_t Register(host::Client &client, const std::string &name, bool runs = true) {
        Tarn_sys_diag_AgentRegInfoInput request{};
        kit::Set(request.szAgentName, name);
        request.uiValue1 = static_cast<uint32_t>(getpid());
        request.uiValue2 = 1;
        request.ucValue3 = runs;
        const auto answer = kit::Call<Unit, Tarn_sys_diag_AgentRegInfoResult>(client, "TarnSysdiagTarndAgent", 0,
                                                                              "AgentRegInfo", request);
        EXPECT_EQ(answer.Status(), 0) << answer.Text();
        return answer->uiValue1;
    }

private:
    host::Server server_;
};

} // namespace
