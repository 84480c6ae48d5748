#include "host/runtime/server_core.h"

#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "host/osal/log.h"
#include "host/runtime/processors.h"

namespace host {

using namespace std::chrono_literals;

namespace {

// A small request or reply of somebody who has no other finds room while there is any.
constexpr uint64_t kLeastBytes = 64 << 10;

// To a peer whose connection is refused; lost if it does not take that at once.
void Tell(const Descriptor &fd, uint32_t errCode, const std::string &why) {
    const std::vector<uint8_t> frame = MakeRefusal(errCode, why);
    send(fd.Fd(), frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

// What the process opens besides connections.
constexpr uint64_t kOtherDescriptors = 128;

// As many as there are descriptors for.
uint64_t MostConnections(uint64_t wanted) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= wanted + kOtherDescriptors) {
        return wanted;
    }
    const uint64_t most =
        limit.rlim_cur > 2 * kOtherDescriptors ? limit.rlim_cur - kOtherDescriptors : limit.rlim_cur / 2;
    Log().warn("{} connections and not {}: the process may open {} files", most, wanted, limit.rlim_cur);
    return most;
}

// An eighth of each is the privileged users', of the workers one where there are others.
std::array<Quota, kResourceNum> MakeQuotas(const Limits &limits, unsigned workers) {
    const uint64_t connections = MostConnections(limits.connections);
    return {Quota(Resource::kConnections, connections, connections / 8),
            Quota(Resource::kReceivedBytes, limits.receivedBytes, limits.receivedBytes / 8, kLeastBytes),
            Quota(Resource::kRequests, limits.requests, limits.requests / 8),
            Quota(Resource::kWorkers, workers, workers > 1 ? 1 : 0),
            Quota(Resource::kQueuedBytes, limits.queuedBytes, limits.queuedBytes / 8, kLeastBytes)};
}

} // namespace

ServerCore::ServerCore(const ServerOptions &options, const std::vector<const IdlModuleSpec *> &specs)
    : options_(options), workers_(std::max(1U, options.workers)), quotas_(MakeQuotas(options.limits, workers_)),
      turns_(QuotaOf(Resource::kWorkers)), services_(specs),
      clocks_(options.clocks != nullptr ? *options.clocks : systemClocks_), loop_(clocks_), started_(loop_.Now()),
      polls_(loop_, options.ownMethods), policy_(std::make_shared<const Policy>(options.policy)) {
    const Transport transport{Directory(options.runDir)};
    for (const IdlModuleSpec *const spec : specs) {
        acceptors_.push_back(std::make_shared<Acceptor>(
            loop_, transport.Listen(Services::NameOf(*spec), options.policy.AllowsOthers()),
            [this](Descriptor fd) { Connect(std::move(fd)); },
            [this](const Descriptor &fd, const std::string &why) { RefuseForShortage(fd, why); }));
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

std::shared_ptr<User> ServerCore::UserOf(uid_t uid) {
    const MutexLock lock(mutex_);
    if (const auto known = users_.find(uid); known != users_.end()) {
        if (auto user = known->second.lock()) {
            return user;
        }
    }
    std::erase_if(users_, [](const auto &entry) { return entry.second.expired(); });
    auto user = std::make_shared<User>(uid, uid == 0 || uid == ownUid_);
    users_.emplace(uid, user);
    return user;
}

// A connection counts until its descriptor is closed.
void ServerCore::Connect(Descriptor fd) {
    Peer peer;
    if (!ReadPeer(fd.Fd(), peer)) {
        Log().error("connection refused: its user is not known: {}", strerror(errno));
        return;
    }
    const auto user = UserOf(peer.uid);
    const OnProcessorsOf processors(*user);
    Charge connection = QuotaOf(Resource::kConnections).Take(*user);
    if (!connection) {
        RefuseConnection(fd, peer, *user);
        return;
    }
    const auto session = std::make_shared<Session>(loop_, std::move(fd), std::move(peer), user, std::move(connection),
                                                   shared_from_this());
    {
        const MutexLock lock(mutex_);
        sessions_.emplace(session.get(), session);
    }
    if (!session->Open()) {
        Log().error("connection refused: {}", strerror(errno));
        session->Close();
    }
}

void ServerCore::RefuseConnection(const Descriptor &fd, const Peer &peer, const User &user) {
    const Quota &quota = QuotaOf(Resource::kConnections);
    const bool exhausted = quota.IsExhausted();
    const Refusal refusal = {exhausted ? Reason::kConnections : Reason::kUserConnections, EBUSY,
                             exhausted
                                 ? fmt::format("the server has {} connections already", quota.Used())
                                 : fmt::format("user {} has {} connections already", user.uid, quota.HeldBy(user))};
    CountCutOff(peer, refusal.reason, refusal.text);
    Tell(fd, refusal.errCode, refusal.text);
}

// Where there is no descriptor for it.
void ServerCore::RefuseForShortage(const Descriptor &fd, const std::string &why) {
    Warn(ownUid_, "connections not taken", why);
    if (fd) {
        refusals_.Count(Reason::kConnections);
        Tell(fd, EBUSY, "the server has no descriptor left");
    }
}

void ServerCore::CountCutOff(const Peer &peer, Reason reason, const std::string &why) {
    refusals_.Count(reason);
    Warn(peer.uid, TextOf(reason).meaning,
         fmt::format("connection of process {} (user {}) cut off: {}", peer.pid, peer.uid, why));
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
    const Limits &limits = options_.limits;
    const auto shortest = std::min({limits.writeTime, limits.frameTime, limits.idleTime});
    loop_.At(now + std::clamp<Limits::Milliseconds>(shortest / 4, 10ms, 1000ms), [this] { CheckTimes(); });
    for (const auto &session : Sessions()) {
        session->Confine([&] { session->CheckTimes(now); });
    }
    peerLog_.Summarize(now);
    if (options_.returnsMemory) {
        ReturnMemory(now);
    }
}

void ServerCore::ReturnMemory(Loop::Clock::time_point now) {
    constexpr uint64_t kSmall = 1 << 20;
    const uint64_t held = QuotaOf(Resource::kReceivedBytes).Used() + QuotaOf(Resource::kQueuedBytes).Used();
    const bool isIdle = requests_ == 0;
    if (held < kSmall && memoryReturn_.IsDue(ResidentBytes(), isIdle, now)) {
        TrimHeap();
        memoryReturn_.Done(ResidentBytes(), isIdle);
    }
}

// --- Requests

std::shared_ptr<const Policy> ServerCore::GetPolicy() const {
    const MutexLock lock(policyMutex_);
    return policy_;
}

void ServerCore::SetPolicy(const Policy &policy) {
    auto next = std::make_shared<const Policy>(policy);
    {
        const MutexLock lock(policyMutex_);
        policy_.swap(next);
    }
    for (const auto &acceptor : acceptors_) {
        acceptor->OpenTo(policy.AllowsOthers());
    }
}

bool ServerCore::Denied(const Peer &peer, const FrameHeader &header, Refusal &refusal) {
    const std::shared_ptr<const Policy> policy = GetPolicy();
    if (policy->Allows(peer, header.method)) {
        return false;
    }
    refusal = {Reason::kDenied, EACCES,
               fmt::format("denied to user {}; the policy has \"{}\" (group {})", peer.uid, policy->Text(header.method),
                           NameOf(GroupOf(header.method)))};
    Warn(peer.uid, "calls denied",
         fmt::format("{}.{}: denied to process {} of user {}", header.service, header.method, peer.pid, peer.uid));
    return true;
}

// A request of the runtime's own service is looked at when it is served.
Admission ServerCore::Admit(const Peer &peer, User &user, const FrameHeader &header) {
    Admission admission;
    Refusal refusal{Reason::kGarbage, EBADMSG, "a client sends requests, not replies"};
    const bool isRequest = header.kind == FrameKind::kRequest || header.kind == FrameKind::kOneway;
    const bool isOwn = header.service == kRuntimeService;
    if (isRequest && !isOwn) {
        admission.method = services_.Find(header, refusal);
    }
    const bool isServed = isRequest && (isOwn || (admission.method != nullptr && !Denied(peer, header, refusal)));
    if (!isServed || !Charges(user, header, admission, refusal)) {
        admission.refusal = std::move(refusal);
    }
    return admission;
}

// Charges a user for a request. False and the reason when he may have no more.
bool ServerCore::Charges(User &user, const FrameHeader &header, Admission &admission, Refusal &refusal) {
    Quota &requests = QuotaOf(Resource::kRequests), &bytes = QuotaOf(Resource::kReceivedBytes);
    admission.request = requests.Take(user);
    if (!admission.request) {
        refusal = {Reason::kRequests, EBUSY,
                   requests.IsExhausted()
                       ? fmt::format("the server has {} requests in flight, as many as it takes", requests.Used())
                       : fmt::format("user {} has {} requests in flight, which is his share", user.uid,
                                     requests.HeldBy(user))};
        return false;
    }
    const uint32_t size = kHeaderSize + header.length;
    admission.bytes = bytes.Take(user, size);
    if (!admission.bytes) {
        refusal = {Reason::kReceivedBytes, EBUSY,
                   fmt::format("request of {} bytes beside {} in flight, beyond {} of user {}", size,
                               bytes.HeldBy(user), bytes.IsExhausted(size) ? "all" : "the share", user.uid)};
        admission.request.GiveBack();
        return false;
    }
    return true;
}

// Takes part in serving until nothing waits, unless enough threads do.
void ServerCore::Serve(std::shared_ptr<Session> session) {
    Work(turns_.Begin(std::move(session)));
}

void ServerCore::Work(Turn turn) {
    while (turn.session != nullptr) {
        ServeTurn(*turn.session);
        turn.worker.GiveBack(); // while the session is there
        turn = turns_.Next();
        if (turn.session != nullptr && turns_.HasNext()) {
            Help();
        }
    }
}

void ServerCore::ServeElsewhere(std::shared_ptr<Session> session) {
    turns_.Wait(std::move(session));
    if (turns_.HasNext()) {
        Help();
    }
}

void ServerCore::ServeTurn(Session &session) {
    const OnProcessorsOf processors(session.GetUser());
    session.Confine([&] {
        while (session.ServeNext()) {
        }
    });
}

// Has another thread take part.
void ServerCore::Help() {
    loop_.Post([core = shared_from_this()] { core->Work(core->turns_.Next()); });
}

void ServerCore::RequestEnds() {
    if (requests_.fetch_sub(1) == 1 && stopping_) {
        const MutexLock lock(mutex_);
        changed_.NotifyAll();
    }
}

// --- What the server says of itself

void ServerCore::ServeOwn(const std::shared_ptr<Request> &request) {
    const FrameHeader &header = request->Header();
    const std::string_view method = header.method;
    Session &session = request->GetSession();
    const Peer &peer = session.GetPeer();
    const bool isProgram = polls_.Has(method), isCapture = method == "Capture";
    Refusal refusal{Reason::kUnknown, ENOENT, "the runtime's own service has Health, Status, Describe and Capture"};
    if (!isProgram && !isCapture && method != "Health" && method != "Status" && method != "Describe") {
        request->Refuse(refusal);
    } else if (Denied(peer, header, refusal) || (isCapture && !MayCapture(peer, refusal))) {
        request->Refuse(refusal);
    } else if (isProgram) {
        polls_.Ask(request, {std::string(method), std::string(request->Payload()),
                             [this, peer](std::string_view other) { return MayCall(peer, other); }});
    } else {
        const std::string answer = isCapture ? session.Capture(refusal) : Introspect(method, refusal);
        answer.empty() ? request->Refuse(refusal) : request->Answer(answer);
    }
}

// A capture has what all users ask and are answered.
bool ServerCore::MayCapture(const Peer &peer, Refusal &refusal) {
    if (MayCall(peer, "Capture")) {
        return true;
    }
    refusal = {Reason::kDenied, EACCES,
               fmt::format("denied to user {}, to whom the policy's memory-of-others is not allowed: a capture has the "
                           "calls of all users",
                           peer.uid)};
    return false;
}

// Of all users' processes, and not only of the peer's own.
bool ServerCore::MayCall(const Peer &peer, std::string_view method) const {
    const std::shared_ptr<const Policy> policy = GetPolicy();
    return policy->Allows(peer, method) && (GroupOf(method) != Group::kMemory || policy->AllowsMemoryOfOthers(peer));
}

std::string ServerCore::Introspect(std::string_view method, Refusal &refusal) {
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
    health.busy = static_cast<uint32_t>(QuotaOf(Resource::kWorkers).Used());
    health.requests = requests_;
    health.version = TARN_VERSION;
    health.timezone = options_.timezone ? options_.timezone() : "";
    const MutexLock lock(mutex_);
    health.connections = sessions_.size();
    return health;
}

void ServerCore::NoteReload(const std::string &file, const std::string &mistake) {
    const MutexLock lock(mutex_);
    mistakes_.erase(file);
    if (!mistake.empty()) {
        mistakes_.emplace(file, mistake);
    }
}

std::vector<std::string> ServerCore::Mistakes() {
    const MutexLock lock(mutex_);
    std::vector<std::string> mistakes;
    for (const auto &[file, mistake] : mistakes_) {
        mistakes.push_back(mistake);
    }
    return mistakes;
}

ServerStatus ServerCore::Status() {
    ServerStatus status;
    status.health = Health();
    status.mistakes = Mistakes();
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
    if (options_.returnsMemory) {
        KeepOneHeap();
    }
    for (const auto &acceptor : acceptors_) {
        acceptor->Open();
    }
    CheckTimes();
    polls_.Open();
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
    polls_.Close();
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
