// What the sessions of a server share: its services, limits and counters, its threads, and who is connected.
#pragma once

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "host/osal/mutex.h"
#include "host/runtime/acceptor.h"
#include "host/runtime/loop.h"
#include "host/runtime/peer_log.h"
#include "host/runtime/server.h"
#include "host/runtime/services.h"
#include "host/runtime/session.h"

namespace host {

// One thread more than may run methods, so that there is always one that reads, and sees who has gone.
class ServerCore final : public std::enable_shared_from_this<ServerCore> {
public:
    ServerCore(const ServerOptions &options, const std::vector<const IdlModuleSpec *> &specs);

    void Start();
    bool Stop() TARN_EXCLUDES(mutex_, workMutex_);
    void RunDue() { loop_.RunDue(); }
    std::vector<std::filesystem::path> Sockets() const;

    // --- For the sessions

    // Null and the reason when the request can't be served.
    ServedMethod *Find(const Peer &peer, const FrameHeader &header, Refusal &refusal);
    // What the runtime's own service answers; empty and the reason when it does not.
    std::string Introspect(const Peer &peer, const FrameHeader &header, Refusal &refusal);
    const Limits &GetLimits() const { return options_.limits; }
    Refusals &GetRefusals() { return refusals_; }
    void Warn(const std::string &topic, const std::string &record) { peerLog_.Warn(topic, record, loop_.Now()); }
    bool IsStopping() const { return stopping_; }
    // False when there are as many requests as the server takes; this one counts all the same.
    bool RequestBegins() { return requests_.fetch_add(1) < options_.limits.requests; }
    void RequestEnds() TARN_EXCLUDES(mutex_);
    // A session has a request to serve: on this thread where it may, else on one that gets free.
    void Serve(std::shared_ptr<Session> session) TARN_EXCLUDES(workMutex_);
    // The same, on another thread.
    void ServeElsewhere(std::shared_ptr<Session> session) TARN_EXCLUDES(workMutex_);
    void SessionEnds(Session *session) TARN_EXCLUDES(mutex_);

private:
    void Admit(Descriptor fd) TARN_EXCLUDES(mutex_);
    std::optional<Refusal> WhyFull(uid_t user) const TARN_REQUIRES(mutex_);
    bool Denied(const Peer &peer, const FrameHeader &header, Refusal &refusal);
    void Work(std::shared_ptr<Session> session) TARN_EXCLUDES(workMutex_);
    void CheckTimes();
    std::vector<std::shared_ptr<Session>> Sessions() TARN_EXCLUDES(mutex_);
    ServerHealth Health() TARN_EXCLUDES(mutex_, workMutex_);
    ServerStatus Status();
    const std::string &Description();
    void RunThread() TARN_EXCLUDES(mutex_);
    void CloseAcceptors();
    void CloseSessions(Loop::Clock::time_point until);
    bool JoinThreads(Loop::Clock::time_point until) TARN_EXCLUDES(mutex_);

    const ServerOptions options_;
    const unsigned workers_;
    const Services services_;
    const SystemClocks systemClocks_;
    Loop loop_;
    const Loop::Clock::time_point started_;
    Refusals refusals_;
    PeerLog peerLog_;
    std::vector<std::thread> threads_;
    std::vector<std::shared_ptr<Acceptor>> acceptors_;
    std::atomic<bool> stopping_ = false;
    std::atomic<size_t> requests_ = 0;
    std::once_flag described_;
    std::string description_; // set once

    Mutex workMutex_;
    unsigned busy_ TARN_GUARDED_BY(workMutex_) = 0; // threads that serve
    std::deque<std::shared_ptr<Session>> toServe_ TARN_GUARDED_BY(workMutex_);

    Mutex mutex_;
    Condition changed_;
    size_t threadsRunning_ TARN_GUARDED_BY(mutex_) = 0;
    std::unordered_map<Session *, std::shared_ptr<Session>> sessions_ TARN_GUARDED_BY(mutex_);
    std::unordered_map<uid_t, uint32_t> connectionsOfUser_ TARN_GUARDED_BY(mutex_);
};

} // namespace host
