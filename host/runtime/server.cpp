#include "host/runtime/server.h"

#include <fmt/format.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <stdexcept>
#include <thread>
#include <unordered_map>

#include "host/osal/log.h"
#include "host/runtime/loop.h"
#include "host/runtime/session.h"

namespace host {

using namespace std::chrono_literals;

// One thread more than may run methods, so that there is always one that reads, and sees who has gone.
class Server::Core final : public SessionHost, public std::enable_shared_from_this<Core> {
public:
    Core(const ServerOptions &options, const std::vector<const IdlModuleSpec *> &specs)
        : options_(options), workers_(std::max(1U, options.workers)), transport_(Directory(options.runDir)),
          services_(specs) {
        for (const IdlModuleSpec *const spec : specs) {
            listeners_.push_back(transport_.Listen(Services::NameOf(*spec), options_.policy.AllowsOthers()));
        }
    }

    void Start();
    bool Stop();

    std::vector<std::filesystem::path> Sockets() const {
        std::vector<std::filesystem::path> paths;
        for (const auto &listener : listeners_) {
            paths.push_back(listener->Path());
        }
        return paths;
    }

    // --- For the sessions

    ServedMethod *Find(const Peer &peer, const FrameHeader &header, Refusal &refusal) override;
    std::string Introspect(const Peer &peer, const FrameHeader &header, Refusal &refusal) override;
    const Limits &GetLimits() const override { return options_.limits; }
    Refusals &GetRefusals() override { return refusals_; }
    PeerLog &GetPeerLog() override { return peerLog_; }
    bool IsStopping() const override { return stopping_; }
    bool RequestBegins() override { return requests_.fetch_add(1) < options_.limits.requests; }
    void RequestEnds() override;
    void Serve(std::shared_ptr<Session> session) override;
    void ServeElsewhere(std::shared_ptr<Session> session) override;
    void SessionEnds(Session *session) override;

private:
    class Door;

    bool AcceptAll(Listener &listener);
    void Admit(UniqueFd fd);
    bool Denied(const Peer &peer, const FrameHeader &header, Refusal &refusal);
    void Work(std::shared_ptr<Session> session);
    void CheckTimes();
    std::vector<std::shared_ptr<Session>> Sessions();
    ServerHealth Health();
    ServerStatus Status();
    void CloseDoors();
    void CloseSessions(std::chrono::steady_clock::time_point until);

    const ServerOptions options_;
    const unsigned workers_;
    const UnixTransport transport_;
    const Services services_;
    const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
    Refusals refusals_;
    PeerLog peerLog_;
    Loop loop_;
    std::vector<std::thread> threads_;
    std::vector<std::unique_ptr<Listener>> listeners_;
    std::vector<std::shared_ptr<Door>> doors_;
    std::atomic<bool> stopping_ = false;
    std::atomic<size_t> requests_ = 0;

    std::mutex workMutex_;
    unsigned busy_ = 0; // threads that serve
    std::deque<std::shared_ptr<Session>> toServe_;

    std::mutex mutex_;
    std::condition_variable changed_;
    size_t threadsRunning_ = 0;
    std::unordered_map<Session *, std::shared_ptr<Session>> sessions_;
    std::unordered_map<uid_t, uint32_t> connectionsOfUser_;
};

// --- Connections

// A listening socket, and its place in the loop.
class Server::Core::Door final : public Watched, public std::enable_shared_from_this<Door> {
public:
    Door(Core &core, Listener &listener) : core_(core), listener_(listener) {}

    void Open() {
        if (!core_.loop_.Add(listener_.Fd(), EPOLLIN, weak_from_this(), id_)) {
            throw std::system_error(errno, std::generic_category(), listener_.Path().string());
        }
    }

    // Waits for a call of OnReady under way.
    void Close() {
        const std::lock_guard lock(mutex_);
        open_ = false;
        core_.loop_.Remove(listener_.Fd(), id_);
    }

private:
    void OnReady(uint32_t) override {
        const std::lock_guard lock(mutex_);
        if (open_ && !core_.AcceptAll(listener_)) {
            core_.loop_.At(Loop::Clock::now() + 50ms,
                           [core = core_.shared_from_this(), self = shared_from_this()] { self->OnReady(0); });
        }
    }

    Core &core_;
    Listener &listener_;
    std::mutex mutex_;
    bool open_ = true;
    uint64_t id_ = 0;
};

// False when the system has no room for another connection at the moment.
bool Server::Core::AcceptAll(Listener &listener) {
    while (true) {
        UniqueFd fd(accept4(listener.Fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (fd) {
            Admit(std::move(fd));
        } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            peerLog_.Warn("accept", fmt::format("{}: accept: {}", listener.Path().string(), strerror(errno)));
            return false;
        } else if (errno != EINTR && errno != ECONNABORTED) {
            return true;
        }
    }
}

void Server::Core::Admit(UniqueFd fd) {
    Peer peer;
    if (!ReadPeer(fd.Get(), peer)) {
        Log().error("connection refused: its user is not known: {}", strerror(errno));
        return;
    }
    const auto session = std::make_shared<Session>(loop_, std::move(fd), peer, shared_from_this());
    const Limits &limits = options_.limits;
    size_t all;
    uint32_t ofUser;
    {
        const std::lock_guard lock(mutex_);
        all = sessions_.size();
        ofUser = connectionsOfUser_[peer.uid];
        if (all < limits.connections && ofUser < limits.userConnections) {
            sessions_.emplace(session.get(), session);
            ++connectionsOfUser_[peer.uid];
        }
    }
    if (all >= limits.connections) {
        session->Refuse(Reason::kConnections, EBUSY, fmt::format("the server has {} connections already", all));
    } else if (ofUser >= limits.userConnections) {
        session->Refuse(Reason::kUserConnections, EBUSY,
                        fmt::format("user {} has {} connections already", peer.uid, ofUser));
    } else if (!session->Open()) {
        Log().error("connection refused: {}", strerror(errno));
        session->Close();
    }
}

void Server::Core::SessionEnds(Session *session) {
    std::shared_ptr<Session> last; // released outside of the lock
    const std::lock_guard lock(mutex_);
    const auto found = sessions_.find(session);
    if (found == sessions_.end()) {
        return;
    }
    last = std::move(found->second);
    sessions_.erase(found);
    const auto user = connectionsOfUser_.find(session->GetPeer().uid);
    if (--user->second == 0) {
        connectionsOfUser_.erase(user);
    }
}

std::vector<std::shared_ptr<Session>> Server::Core::Sessions() {
    const std::lock_guard lock(mutex_);
    std::vector<std::shared_ptr<Session>> sessions;
    for (const auto &entry : sessions_) {
        sessions.push_back(entry.second);
    }
    return sessions;
}

// Now and then, for limits in time: often enough that they are kept to a quarter.
void Server::Core::CheckTimes() {
    if (stopping_) {
        return;
    }
    const auto now = Loop::Clock::now();
    for (const auto &session : Sessions()) {
        session->CheckTimes(now);
    }
    peerLog_.Summarize(now);
    const Limits &limits = options_.limits;
    const auto shortest = std::min({limits.writeTime, limits.frameTime, limits.idleTime});
    loop_.At(now + std::clamp<Limits::Milliseconds>(shortest / 4, 10ms, 1000ms), [this] { CheckTimes(); });
}

// --- Requests

bool Server::Core::Denied(const Peer &peer, const FrameHeader &header, Refusal &refusal) {
    if (options_.policy.Allows(peer, header.method)) {
        return false;
    }
    refusal = {Reason::kDenied, EACCES,
               fmt::format("denied to user {}; the policy has \"{}\" (group {})", peer.uid,
                           options_.policy.Text(header.method), NameOf(GroupOf(header.method)))};
    const std::string call = fmt::format("{}.{}: denied to ", header.service, header.method);
    peerLog_.Warn(fmt::format("{}user {}", call, peer.uid),
                  fmt::format("{}process {} of user {}", call, peer.pid, peer.uid));
    return true;
}

ServedMethod *Server::Core::Find(const Peer &peer, const FrameHeader &header, Refusal &refusal) {
    if (stopping_) {
        refusal = {Reason::kStopping, ECANCELED, "the server is stopping"};
        return nullptr;
    }
    ServedMethod *const method = services_.Find(header, refusal);
    return method == nullptr || Denied(peer, header, refusal) ? nullptr : method;
}

// Takes part in serving until nothing waits, unless enough threads do.
void Server::Core::Serve(std::shared_ptr<Session> session) {
    {
        const std::lock_guard lock(workMutex_);
        if (busy_ == workers_) {
            toServe_.push_back(std::move(session));
            return;
        }
        ++busy_;
    }
    Work(std::move(session));
}

void Server::Core::Work(std::shared_ptr<Session> session) {
    while (true) {
        while (session->ServeNext()) {
        }
        const std::lock_guard lock(workMutex_);
        if (toServe_.empty()) {
            --busy_;
            return;
        }
        session = std::move(toServe_.front());
        toServe_.pop_front();
    }
}

void Server::Core::ServeElsewhere(std::shared_ptr<Session> session) {
    {
        const std::lock_guard lock(workMutex_);
        if (busy_ == workers_) {
            toServe_.push_back(std::move(session));
            return;
        }
    }
    loop_.Post([core = shared_from_this(), session = std::move(session)] { core->Serve(session); });
}

void Server::Core::RequestEnds() {
    if (requests_.fetch_sub(1) == 1 && stopping_) {
        const std::lock_guard lock(mutex_);
        changed_.notify_all();
    }
}

// --- What the server says of itself

std::string Server::Core::Introspect(const Peer &peer, const FrameHeader &header, Refusal &refusal) {
    const std::string_view method = header.method;
    if (method != "Health" && method != "Status") {
        refusal = {Reason::kUnknown, ENOENT, "the runtime's own service has Health and Status"};
        return {};
    }
    if (Denied(peer, header, refusal)) {
        return {};
    }
    return method == "Health" ? ToJson(Health()) : ToJson(Status());
}

ServerHealth Server::Core::Health() {
    ServerHealth health;
    health.state = stopping_ ? "stopping" : "serving";
    health.pid = static_cast<uint32_t>(getpid());
    health.uptime = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started_);
    health.workers = workers_;
    {
        const std::lock_guard lock(workMutex_);
        health.busy = busy_;
    }
    health.requests = requests_;
    const std::lock_guard lock(mutex_);
    health.connections = sessions_.size();
    return health;
}

ServerStatus Server::Core::Status() {
    ServerStatus status;
    status.health = Health();
    for (const LimitInfo &limit : DescribeLimits(options_.limits)) {
        status.limits.push_back({limit.name, limit.value, limit.meaning});
    }
    for (size_t i = 0; i < static_cast<size_t>(Reason::kEnd_); ++i) {
        const auto reason = static_cast<Reason>(i);
        status.refused.push_back({TextOf(reason).name, refusals_.Get(reason), TextOf(reason).meaning});
    }
    status.services = services_.Describe();
    return status;
}

// --- Start and end

void Server::Core::Start() {
    for (const auto &listener : listeners_) {
        doors_.push_back(std::make_shared<Door>(*this, *listener));
        doors_.back()->Open();
    }
    CheckTimes();
    threadsRunning_ = workers_ + 1;
    for (size_t i = 0; i < workers_ + 1; ++i) {
        threads_.emplace_back([core = shared_from_this()] {
            core->loop_.Run();
            const std::lock_guard lock(core->mutex_);
            --core->threadsRunning_;
            core->changed_.notify_all();
        });
    }
}

void Server::Core::CloseDoors() {
    for (const auto &door : doors_) {
        door->Close();
    }
    doors_.clear();
    listeners_.clear();
}

// Gives peers until then to take their answers.
void Server::Core::CloseSessions(std::chrono::steady_clock::time_point until) {
    const auto sessions = Sessions();
    const auto unsent = [](const auto &session) { return session->Unsent(); };
    while (std::ranges::any_of(sessions, unsent) && std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(2ms);
    }
    for (const auto &session : Sessions()) {
        session->Close();
    }
}

bool Server::Core::Stop() {
    const auto until = std::chrono::steady_clock::now() + options_.stopBound;
    stopping_ = true;
    CloseDoors();
    {
        std::unique_lock lock(mutex_);
        changed_.wait_until(lock, until, [this] { return requests_ == 0; });
    }
    Request::RefuseAll(static_cast<SessionHost *>(this), ECANCELED,
                       "the server stopped before the request was answered");
    CloseSessions(until);
    peerLog_.Flush();
    loop_.Stop();
    bool ended;
    {
        std::unique_lock lock(mutex_);
        // A machine under load may leave a thread that has nothing to do but end without a CPU for a while.
        const auto latest = std::max(until, std::chrono::steady_clock::now() + 500ms);
        ended = changed_.wait_until(lock, latest, [this] { return threadsRunning_ == 0; });
    }
    for (std::thread &thread : threads_) {
        if (ended) {
            thread.join();
        } else {
            thread.detach();
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
