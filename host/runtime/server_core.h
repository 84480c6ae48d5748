// What the sessions of a server share: its services, limits and counters, its threads, and who is connected.
#pragma once

#include <unistd.h>

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "host/osal/mutex.h"
#include "host/runtime/acceptor.h"
#include "host/runtime/loop.h"
#include "host/runtime/memory_return.h"
#include "host/runtime/peer_log.h"
#include "host/runtime/polls.h"
#include "host/runtime/quota.h"
#include "host/runtime/server.h"
#include "host/runtime/services.h"
#include "host/runtime/session.h"
#include "host/runtime/tap.h"
#include "host/runtime/turns.h"

namespace host {

// One thread more than may run methods, so that there is always one that reads, and sees who has gone.
class ServerCore final : public std::enable_shared_from_this<ServerCore> {
public:
    ServerCore(const ServerOptions &options, const std::vector<const IdlModuleSpec *> &specs);

    void Start();
    bool Stop() TARN_EXCLUDES(mutex_);
    void RunDue() { loop_.RunDue(); }
    void SetPolicy(const Policy &policy) TARN_EXCLUDES(policyMutex_);
    void NoteReload(const std::string &file, const std::string &mistake) TARN_EXCLUDES(mutex_);
    std::vector<std::string> Mistakes() TARN_EXCLUDES(mutex_);
    std::vector<std::filesystem::path> Sockets() const;

    // --- For the sessions

    // The user of that number, while anybody holds him.
    std::shared_ptr<User> UserOf(uid_t uid) TARN_EXCLUDES(mutex_);
    Quota &QuotaOf(Resource resource) { return quotas_[static_cast<size_t>(resource)]; }
    Admission Admit(const Peer &peer, User &user, const FrameHeader &header);
    // A request to the runtime's own service.
    void ServeOwn(const std::shared_ptr<Request> &request);
    Tap &GetTap() { return tap_; }
    WallTime WallNow() const { return clocks_.WallNow(); }
    const Limits &GetLimits() const { return options_.limits; }
    std::shared_ptr<const Policy> GetPolicy() const TARN_EXCLUDES(policyMutex_);
    Refusals &GetRefusals() { return refusals_; }
    // In the log, of a user. The topic is a literal.
    void Warn(uid_t user, std::string_view topic, const std::string &record) {
        peerLog_.Warn(user, topic, record, loop_.Now());
    }
    bool MayLogCallOf(uid_t user) { return peerLog_.MayWrite(user, loop_.Now()); }
    void CountCutOff(const Peer &peer, Reason reason, const std::string &why);
    void NoteSetting(const Peer &peer, const meaning::Method &method, const void *request) const {
        if (options_.onSetting) {
            options_.onSetting(peer, method, request);
        }
    }
    bool IsStopping() const { return stopping_; }
    void RequestBegins() { requests_.fetch_add(1); }
    void RequestEnds() TARN_EXCLUDES(mutex_);
    // A session has a request to serve: on this thread where it may, else on one that gets free.
    void Serve(std::shared_ptr<Session> session);
    // The same, on another thread.
    void ServeElsewhere(std::shared_ptr<Session> session);
    void SessionEnds(Session *session) TARN_EXCLUDES(mutex_);

private:
    void Connect(Descriptor fd) TARN_EXCLUDES(mutex_);
    void RefuseConnection(const Descriptor &fd, const Peer &peer, const User &user);
    void RefuseForShortage(const Descriptor &fd, const std::string &why);
    bool Charges(User &user, const FrameHeader &header, Admission &admission, Refusal &refusal);
    // What the server says of itself; empty and the reason when it does not.
    std::string Introspect(std::string_view method, Refusal &refusal);
    bool MayCall(const Peer &peer, std::string_view method) const;
    bool MayCapture(const Peer &peer, Refusal &refusal);
    bool Denied(const Peer &peer, const FrameHeader &header, Refusal &refusal);
    void Work(Turn turn);
    static void ServeTurn(Session &session);
    void Help();
    void CheckTimes();
    void ReturnMemory(Loop::Clock::time_point now);
    std::vector<std::shared_ptr<Session>> Sessions() TARN_EXCLUDES(mutex_);
    ServerHealth Health() TARN_EXCLUDES(mutex_);
    ServerStatus Status() TARN_EXCLUDES(mutex_);
    const std::string &Description();
    void RunThread() TARN_EXCLUDES(mutex_);
    void CloseAcceptors();
    void CloseSessions(Loop::Clock::time_point until);
    bool JoinThreads(Loop::Clock::time_point until) TARN_EXCLUDES(mutex_);

    const ServerOptions options_;
    const unsigned workers_;
    const uid_t ownUid_ = geteuid();
    std::array<Quota, kResourceNum> quotas_; // outlive what is charged to them
    Turns turns_;
    const Services services_;
    Tap tap_;
    const SystemClocks systemClocks_;
    const Clocks &clocks_;
    Loop loop_;
    const Loop::Clock::time_point started_;
    Refusals refusals_;
    PeerLog peerLog_;
    Polls polls_;
    MemoryReturn memoryReturn_; // of CheckTimes
    std::vector<std::thread> threads_;
    std::vector<std::shared_ptr<Acceptor>> acceptors_;
    std::atomic<bool> stopping_ = false;
    std::atomic<size_t> requests_ = 0;
    std::once_flag described_;
    std::string description_; // set once

    mutable Mutex policyMutex_;
    std::shared_ptr<const Policy> policy_ TARN_GUARDED_BY(policyMutex_); // replaced, never changed

    Mutex mutex_;
    Condition changed_;
    std::map<std::string, std::string> mistakes_ TARN_GUARDED_BY(mutex_); // by file
    size_t threadsRunning_ TARN_GUARDED_BY(mutex_) = 0;
    std::unordered_map<Session *, std::shared_ptr<Session>> sessions_ TARN_GUARDED_BY(mutex_);
    std::unordered_map<uid_t, std::weak_ptr<User>> users_ TARN_GUARDED_BY(mutex_);
};

} // namespace host
