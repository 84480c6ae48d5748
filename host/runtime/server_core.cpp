#include "host/runtime/server_core.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "host/osal/log.h"

namespace host {

using namespace std::chrono_literals;

ServerCore::ServerCore(const ServerOptions &options, const std::vector<const IdlModuleSpec *> &specs)
    : options_(options), workers_(std::max(1U, options.workers)), services_(specs),
      loop_(options.clocks != nullptr ? *options.clocks : systemClocks_), started_(loop_.Now()) {
    const Transport transport{Directory(options.runDir)};
    for (const IdlModuleSpec *const spec : specs) {
        acceptors_.push_back(std::make_shared<Acceptor>(
            loop_, transport.Listen(Services::NameOf(*spec), options_.policy.AllowsOthers()),
            [this](Descriptor fd) { Admit(std::move(fd)); },
            [this](const std::string &what) { Warn("accept", what); }));
    }
}

std::vector<std::filesystem::path> ServerCore::Sockets() const {
    std::vector<std::filesystem::path> paths;
    for (const auto &acceptor : acceptors_) {
        paths.push_back(acceptor->Path());
    }
    return paths;
}

// --- Connections

// Nothing when the user may have another connection.
std::optional<Refusal> ServerCore::WhyFull(uid_t user) const {
    const Limits &limits = options_.limits;
    if (sessions_.size() >= limits.connections) {
        return Refusal{Reason::kConnections, EBUSY,
                       fmt::format("the server has {} connections already", sessions_.size())};
    }
    const auto ofUser = connectionsOfUser_.find(user);
    if (ofUser != connectionsOfUser_.end() && ofUser->second >= limits.userConnections) {
        return Refusal{Reason::kUserConnections, EBUSY,
                       fmt::format("user {} has {} connections already", user, ofUser->second)};
    }
    return std::nullopt;
}

void ServerCore::Admit(Descriptor fd) {
    Peer peer;
    if (!ReadPeer(fd.Fd(), peer)) {
        Log().error("connection refused: its user is not known: {}", strerror(errno));
        return;
    }
    const auto session = std::make_shared<Session>(loop_, std::move(fd), peer, shared_from_this());
    std::optional<Refusal> full;
    {
        const MutexLock lock(mutex_);
        full = WhyFull(peer.uid);
        if (!full.has_value()) {
            sessions_.emplace(session.get(), session);
            ++connectionsOfUser_[peer.uid];
        }
    }
    if (full.has_value()) {
        session->Refuse(full->reason, full->errCode, full->text);
    } else if (!session->Open()) {
        Log().error("connection refused: {}", strerror(errno));
        session->Close();
    }
}

void ServerCore::SessionEnds(Session *session) {
    std::shared_ptr<Session> last; // released outside of the lock
    const MutexLock lock(mutex_);
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

std::vector<std::shared_ptr<Session>> ServerCore::Sessions() {
    const MutexLock lock(mutex_);
    std::vector<std::shared_ptr<Session>> sessions;
    for (const auto &entry : sessions_) {
        sessions.push_back(entry.second);
    }
    return sessions;
}

// Now and then, for limits in time: often enough that they are kept to a quarter.
void ServerCore::CheckTimes() {
    if (stopping_) {
        return;
    }
    const auto now = loop_.Now();
    for (const auto &session : Sessions()) {
        session->CheckTimes(now);
    }
    peerLog_.Summarize(now);
    const Limits &limits = options_.limits;
    const auto shortest = std::min({limits.writeTime, limits.frameTime, limits.idleTime});
    loop_.At(now + std::clamp<Limits::Milliseconds>(shortest / 4, 10ms, 1000ms), [this] { CheckTimes(); });
}

// --- Requests

bool ServerCore::Denied(const Peer &peer, const FrameHeader &header, Refusal &refusal) {
    if (options_.policy.Allows(peer, header.method)) {
        return false;
    }
    refusal = {Reason::kDenied, EACCES,
               fmt::format("denied to user {}; the policy has \"{}\" (group {})", peer.uid,
                           options_.policy.Text(header.method), NameOf(GroupOf(header.method)))};
    const std::string call = fmt::format("{}.{}: denied to ", header.service, header.method);
    Warn(fmt::format("{}user {}", call, peer.uid), fmt::format("{}process {} of user {}", call, peer.pid, peer.uid));
    return true;
}

ServedMethod *ServerCore::Find(const Peer &peer, const FrameHeader &header, Refusal &refusal) {
    if (stopping_) {
        refusal = {Reason::kStopping, ECANCELED, "the server is stopping"};
        return nullptr;
    }
    ServedMethod *const method = services_.Find(header, refusal);
    return method == nullptr || Denied(peer, header, refusal) ? nullptr : method;
}

// Takes part in serving until nothing waits, unless enough threads do.
void ServerCore::Serve(std::shared_ptr<Session> session) {
    {
        const MutexLock lock(workMutex_);
        if (busy_ == workers_) {
            toServe_.push_back(std::move(session));
            return;
        }
        ++busy_;
    }
    Work(std::move(session));
}

void ServerCore::Work(std::shared_ptr<Session> session) {
    while (true) {
        while (session->ServeNext()) {
        }
        const MutexLock lock(workMutex_);
        if (toServe_.empty()) {
            --busy_;
            return;
        }
        session = std::move(toServe_.front());
        toServe_.pop_front();
    }
}

void ServerCore::ServeElsewhere(std::shared_ptr<Session> session) {
    {
        const MutexLock lock(workMutex_);
        if (busy_ == workers_) {
            toServe_.push_back(std::move(session));
            return;
        }
    }
    loop_.Post([core = shared_from_this(), session = std::move(session)] { core->Serve(session); });
}

void ServerCore::RequestEnds() {
    if (requests_.fetch_sub(1) == 1 && stopping_) {
        const MutexLock lock(mutex_);
        changed_.NotifyAll();
    }
}

// --- What the server says of itself

std::string ServerCore::Introspect(const Peer &peer, const FrameHeader &header, Refusal &refusal) {
    const std::string_view method = header.method;
    if (method != "Health" && method != "Status" && method != "Describe") {
        refusal = {Reason::kUnknown, ENOENT, "the runtime's own service has Health, Status and Describe"};
        return {};
    }
    if (Denied(peer, header, refusal)) {
        return {};
    }
    if (method == "Describe") {
        refusal = {Reason::kUnknown, ENOENT, "this server does not describe its services"};
        return Description();
    }
    return method == "Health" ? ToJson(Health()) : ToJson(Status());
}

const std::string &ServerCore::Description() {
    std::call_once(described_, [this] { description_ = options_.describe ? options_.describe() : ""; });
    return description_;
}

ServerHealth ServerCore::Health() {
    ServerHealth health;
    health.state = stopping_ ? "stopping" : "serving";
    health.pid = static_cast<uint32_t>(getpid());
    health.uptime = std::chrono::duration_cast<std::chrono::milliseconds>(loop_.Now() - started_);
    health.workers = workers_;
    {
        const MutexLock lock(workMutex_);
        health.busy = busy_;
    }
    health.requests = requests_;
    health.timezone = options_.timezone ? options_.timezone() : "";
    const MutexLock lock(mutex_);
    health.connections = sessions_.size();
    return health;
}

ServerStatus ServerCore::Status() {
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

void ServerCore::Start() {
    for (const auto &acceptor : acceptors_) {
        acceptor->Open();
    }
    CheckTimes();
    {
        const MutexLock lock(mutex_);
        threadsRunning_ = workers_ + 1;
    }
    for (size_t i = 0; i < workers_ + 1; ++i) {
        threads_.emplace_back([core = shared_from_this()] { core->RunThread(); });
    }
}

void ServerCore::RunThread() {
    loop_.Run();
    const MutexLock lock(mutex_);
    --threadsRunning_;
    changed_.NotifyAll();
}

// Their sockets are gone then.
void ServerCore::CloseAcceptors() {
    for (const auto &acceptor : acceptors_) {
        acceptor->Close();
    }
    acceptors_.clear();
}

// Gives peers until then to take their answers.
void ServerCore::CloseSessions(Loop::Clock::time_point until) {
    const auto sessions = Sessions();
    const auto unsent = [](const auto &session) { return session->HasUnsent(); };
    while (std::ranges::any_of(sessions, unsent) && Loop::Clock::now() < until) {
        std::this_thread::sleep_for(2ms);
    }
    for (const auto &session : Sessions()) {
        session->Close();
    }
}

// False when a handler still runs at that time: its thread is left behind.
bool ServerCore::JoinThreads(Loop::Clock::time_point until) {
    bool ended;
    {
        MutexLock lock(mutex_);
        ended = changed_.WaitUntil(lock, until, [this]() TARN_REQUIRES(mutex_) { return threadsRunning_ == 0; });
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

bool ServerCore::Stop() {
    const auto until = Loop::Clock::now() + options_.stopBound;
    stopping_ = true;
    CloseAcceptors();
    {
        MutexLock lock(mutex_);
        changed_.WaitUntil(lock, until, [this] { return requests_ == 0; });
    }
    Request::RefuseAll(*this, ECANCELED, "the server stopped before the request was answered");
    CloseSessions(until);
    peerLog_.Flush();
    loop_.Stop();
    // A machine under load may leave a thread that has nothing to do but end without a CPU for a while.
    return JoinThreads(std::max(until, Loop::Clock::now() + 500ms));
}

} // namespace host
