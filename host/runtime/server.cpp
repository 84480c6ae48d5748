#include "host/runtime/server.h"

#include <cstring>
#include <stdexcept>
#include <utility>

#include "host/osal/log.h"
#include "host/runtime/server_core.h"

namespace host {

Server::Server(ServerOptions options) : options_(std::move(options)) {}

Server::~Server() {
    Stop();
}

void Server::AddService(const IdlModuleSpec &spec) {
    if (core_ != nullptr) {
        Services::Refuse(spec, "added to a server that has started");
    }
    Services::Check(spec);
    for (const IdlModuleSpec *const other : specs_) {
        if (strncmp(other->acService, spec.acService, sizeof spec.acService) == 0) {
            Services::Refuse(spec, "its service has been added before");
        }
    }
    specs_.push_back(&spec);
}

void Server::Start() {
    if (core_ != nullptr) {
        throw std::logic_error("the server has been started");
    }
    auto core = std::make_shared<ServerCore>(options_, specs_);
    core->Start();
    core_ = std::move(core);
}

bool Server::Stop() {
    const auto core = std::exchange(core_, nullptr);
    if (core == nullptr) {
        return true;
    }
    const bool ended = core->Stop();
    if (!ended) {
        Log().error("a handler is still running {} ms after the server was to stop", options_.stopBound.count());
    }
    return ended;
}

void Server::SetPolicy(Policy policy) {
    options_.policy = std::move(policy);
    if (core_ != nullptr) {
        core_->SetPolicy(options_.policy);
    }
}

void Server::NoteReload(const std::string &file, const std::string &mistake) {
    if (core_ != nullptr) {
        core_->NoteReload(file, mistake);
    }
}

std::vector<std::string> Server::Mistakes() const {
    return core_ == nullptr ? std::vector<std::string>() : core_->Mistakes();
}

void Server::RunDue() {
    if (core_ != nullptr) {
        core_->RunDue();
    }
}

std::vector<std::filesystem::path> Server::Sockets() const {
    return core_ == nullptr ? std::vector<std::filesystem::path>() : core_->Sockets();
}

} // namespace host
