#include "tarn_sysdiag/host/serve.h"

#include <fmt/format.h>

#include <cerrno>
#include <memory>
#include <new>
#include <stdexcept>
#include <system_error>

#include "host/runtime/last_error.h"
#include "host/runtime/server.h"

struct TarnHost_Server {
    explicit TarnHost_Server(host::ServerOptions options) : server(std::move(options)) {}
    host::Server server;
};

namespace host {
namespace {

ServerOptions OptionsOf(const TarnHost_ServerOptions &options) {
    ServerOptions server;
    if (options.pcRunDir != nullptr) {
        server.runDir = options.pcRunDir;
    }
    if (options.pcPolicy != nullptr) {
        server.policy = Policy::Load(options.pcPolicy);
    }
    if (options.uiWorkers != 0) {
        server.workers = options.uiWorkers;
    }
    return server;
}

std::unique_ptr<TarnHost_Server> Serve(const TarnHost_ServerOptions &options, const IdlModuleSpec *const *specs,
                                       uint32_t number) {
    auto served = std::make_unique<TarnHost_Server>(OptionsOf(options));
    for (uint32_t i = 0; i < number; ++i) {
        if (specs[i] == nullptr) {
            throw std::invalid_argument(fmt::format("module specification {} is null", i));
        }
        served->server.AddService(*specs[i]);
    }
    served->server.Start();
    return served;
}

uint32_t Fails(uint32_t error, const char *why) {
    KeepLastError(why);
    return error;
}

} // namespace
} // namespace host

uint32_t TarnHost_Serve(const TarnHost_ServerOptions *pstOptions, const IdlModuleSpec *const *ppstSpecs,
                        uint32_t uiSpecNum, TarnHost_Server **ppstServer) {
    if (ppstSpecs == nullptr || ppstServer == nullptr) {
        return host::Fails(EINVAL, "no module specifications, or no place for the server");
    }
    try {
        const TarnHost_ServerOptions none{};
        *ppstServer = host::Serve(pstOptions == nullptr ? none : *pstOptions, ppstSpecs, uiSpecNum).release();
        return 0;
    } catch (const std::system_error &error) {
        return host::Fails(static_cast<uint32_t>(error.code().value()), error.what());
    } catch (const std::bad_alloc &error) {
        return host::Fails(ENOMEM, error.what());
    } catch (const std::exception &error) {
        return host::Fails(EINVAL, error.what());
    }
}

uint32_t TarnHost_StopServing(TarnHost_Server *pstServer) {
    const std::unique_ptr<TarnHost_Server> server(pstServer);
    return server == nullptr || server->server.Stop() ? 0 : ETIMEDOUT;
}
