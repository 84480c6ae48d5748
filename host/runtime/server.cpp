#include "host/runtime/server.h"

#include <fmt/format.h>
#include <sys/socket.h>

#include <asio/executor_work_guard.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <unordered_map>
#include <unordered_set>

#include "host/osal/log.h"
#include "host/runtime/session.h"

namespace host {
namespace {

using namespace std::chrono_literals;

struct Service {
    std::unordered_map<std::string_view, const IdlInterfaceEntry *> methods;
};

std::string_view NameOf(const char *field, size_t size) {
    return {field, strnlen(field, size)};
}

[[noreturn]] void Malformed(const IdlModuleSpec &spec, const std::string &what) {
    throw std::invalid_argument(
        fmt::format("module specification \"{}\": {}", NameOf(spec.acService, sizeof spec.acService), what));
}

Service MakeService(const IdlModuleSpec &spec) {
    if (NameOf(spec.acService, sizeof spec.acService).empty()) {
        Malformed(spec, "it names no service");
    }
    if (spec.pstInterfaces == nullptr || spec.uiInterfaceNum == 0) {
        Malformed(spec, "it has no interface table");
    }
    Service service;
    for (uint32_t i = 1; i < spec.uiInterfaceNum; ++i) {
        const IdlInterfaceEntry &entry = spec.pstInterfaces[i];
        const std::string_view method = NameOf(entry.acMethod, sizeof entry.acMethod);
        if (method.empty() || entry.pfnWrapper == nullptr) {
            Malformed(spec, fmt::format("interface entry {} has no name or no wrapper", i));
        }
        if (!service.methods.emplace(method, &entry).second) {
            Malformed(spec, fmt::format("interface entry {}: {} is there twice", i, method));
        }
    }
    return service;
}

} // namespace

class Server::Core final : public SessionHost, public std::enable_shared_from_this<Core> {
public:
    Core(const ServerOptions &options, const std::vector<const IdlModuleSpec *> &specs)
        : options_(options), transport_(Directory(options.runDir)), work_(io_.get_executor()) {
        for (const IdlModuleSpec *const spec : specs) {
            const std::string_view name = NameOf(spec->acService, sizeof spec->acService);
            services_.emplace(name, MakeService(*spec));
            doors_.push_back(std::make_unique<Door>(transport_.Listen(name), io_));
        }
    }

    void Start() {
        for (const auto &door : doors_) {
            Accept(*door);
        }
        for (unsigned i = 0; i < std::max(1U, options_.workers); ++i) {
            ++workersRunning_;
            workers_.emplace_back([core = shared_from_this()] {
                core->io_.run();
                const std::lock_guard lock(core->mutex_);
                --core->workersRunning_;
                core->changed_.notify_all();
            });
        }
    }

    bool Stop();

    std::vector<std::filesystem::path> Sockets() const {
        std::vector<std::filesystem::path> paths;
        for (const auto &door : doors_) {
            paths.push_back(door->listener->Path());
        }
        return paths;
    }

    IdlWrapperFn Find(const FrameHeader &header, uint32_t &errCode, std::string &reason) const override;
    const Limits &GetLimits() const override { return options_.limits; }

    void RequestBegins() override {
        const std::lock_guard lock(mutex_);
        ++requests_;
    }

    void RequestEnds() override {
        const std::lock_guard lock(mutex_);
        if (--requests_ == 0) {
            changed_.notify_all();
        }
    }

    void SessionEnds(Session *session) override {
        std::shared_ptr<Session> last;
        const std::lock_guard lock(mutex_);
        const auto found = sessions_.find(session);
        if (found != sessions_.end()) {
            last = std::move(found->second);
            sessions_.erase(found);
        }
    }

private:
    // A listening socket, and its place in the io_context.
    struct Door {
        Door(std::unique_ptr<Listener> socket, asio::io_context &io)
            : listener(std::move(socket)), events(io, listener->Fd()), pause(io) {}
        ~Door() { events.release(); } // the listener closes it
        std::unique_ptr<Listener> listener;
        asio::posix::stream_descriptor events;
        asio::steady_timer pause;
    };

    void Accept(Door &door);
    bool AcceptAll(Door &door);
    void CloseDoors();
    void CloseSessions(std::chrono::steady_clock::time_point until);
    bool AnyUnsent();

    const ServerOptions options_;
    const UnixTransport transport_;
    std::unordered_map<std::string_view, Service> services_;
    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> work_;
    std::vector<std::thread> workers_;
    std::mutex doorsMutex_;
    std::vector<std::unique_ptr<Door>> doors_;
    std::atomic<bool> stopping_ = false;
    std::mutex mutex_;
    std::condition_variable changed_;
    size_t requests_ = 0;
    size_t workersRunning_ = 0;
    std::unordered_map<Session *, std::shared_ptr<Session>> sessions_;
};

// The doors' mutex is taken by every handler that touches one, since Stop may come from any thread.
void Server::Core::Accept(Door &door) {
    door.events.async_wait(asio::posix::stream_descriptor::wait_read,
                           [core = shared_from_this(), &door](std::error_code error) {
                               const std::lock_guard lock(core->doorsMutex_);
                               if (error || core->stopping_) {
                                   return;
                               }
                               if (core->AcceptAll(door)) {
                                   core->Accept(door);
                                   return;
                               }
                               door.pause.expires_after(50ms);
                               door.pause.async_wait([core, &door](std::error_code aborted) {
                                   const std::lock_guard again(core->doorsMutex_);
                                   if (!aborted && !core->stopping_) {
                                       core->Accept(door);
                                   }
                               });
                           });
}

// False when the system has no room for another connection at the moment.
bool Server::Core::AcceptAll(Door &door) {
    while (true) {
        UniqueFd fd(accept4(door.listener->Fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!fd && (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)) {
            Log().error("{}: accept: {}", door.listener->Path().string(), strerror(errno));
            return false;
        }
        if (!fd && errno != EINTR && errno != ECONNABORTED) {
            return true;
        }
        if (!fd) {
            continue;
        }
        const auto session = std::make_shared<Session>(io_, std::move(fd), shared_from_this());
        {
            const std::lock_guard lock(mutex_);
            sessions_.emplace(session.get(), session);
        }
        session->Read();
    }
}

IdlWrapperFn Server::Core::Find(const FrameHeader &header, uint32_t &errCode, std::string &reason) const {
    if (stopping_) {
        errCode = ECANCELED;
        reason = "the server is stopping";
        return nullptr;
    }
    const auto service = services_.find(header.service);
    if (service == services_.end()) {
        errCode = ENOENT;
        reason = "no such service here; served are";
        for (const auto &[name, ignored] : services_) {
            reason += fmt::format(" {}", name);
        }
        return nullptr;
    }
    const auto method = service->second.methods.find(header.method);
    if (method == service->second.methods.end()) {
        errCode = ENOENT;
        reason = "the service has no such method";
        return nullptr;
    }
    if (header.typeHash != method->second->uiRequestHash) {
        errCode = EPROTOTYPE;
        reason = fmt::format("request of type {:#010x}, expected {:#010x}: client and server differ in the type",
                             header.typeHash, method->second->uiRequestHash);
        return nullptr;
    }
    return method->second->pfnWrapper;
}

void Server::Core::CloseDoors() {
    stopping_ = true;
    const std::lock_guard lock(doorsMutex_);
    for (const auto &door : doors_) {
        std::error_code ignored;
        door->events.cancel(ignored);
        door->pause.cancel();
        door->events.release();
        door->listener.reset();
    }
}

bool Server::Core::AnyUnsent() {
    const std::lock_guard lock(mutex_);
    return std::any_of(sessions_.begin(), sessions_.end(), [](const auto &entry) { return entry.first->Unsent(); });
}

// Gives peers until then to take their answers.
void Server::Core::CloseSessions(std::chrono::steady_clock::time_point until) {
    while (AnyUnsent() && std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(2ms);
    }
    std::vector<std::shared_ptr<Session>> sessions;
    {
        const std::lock_guard lock(mutex_);
        for (const auto &entry : sessions_) {
            sessions.push_back(entry.second);
        }
    }
    for (const auto &session : sessions) {
        session->Close();
    }
}

bool Server::Core::Stop() {
    const auto until = std::chrono::steady_clock::now() + options_.stopBound;
    CloseDoors();
    {
        std::unique_lock lock(mutex_);
        changed_.wait_until(lock, until, [this] { return requests_ == 0; });
    }
    Request::RefuseAll(static_cast<SessionHost *>(this), ECANCELED,
                       "the server stopped before the request was answered");
    CloseSessions(until);
    work_.reset();
    bool ended;
    {
        std::unique_lock lock(mutex_);
        ended = changed_.wait_for(lock, 500ms, [this] { return workersRunning_ == 0; });
    }
    for (std::thread &worker : workers_) {
        if (ended) {
            worker.join();
        } else {
            worker.detach();
        }
    }
    return ended;
}

Server::Server(ServerOptions options) : options_(std::move(options)) {}

Server::~Server() {
    Stop();
}

void Server::AddService(const IdlModuleSpec &spec) {
    if (core_ != nullptr) {
        Malformed(spec, "added to a server that has started");
    }
    MakeService(spec);
    for (const IdlModuleSpec *const other : specs_) {
        if (strncmp(other->acService, spec.acService, sizeof spec.acService) == 0) {
            Malformed(spec, "its service has been added before");
        }
    }
    specs_.push_back(&spec);
}

void Server::Start() {
    if (core_ != nullptr) {
        throw std::logic_error("the server has been started");
    }
    auto core = std::make_shared<Core>(options_, specs_);
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

std::vector<std::filesystem::path> Server::Sockets() const {
    return core_ == nullptr ? std::vector<std::filesystem::path>() : core_->Sockets();
}

} // namespace host
