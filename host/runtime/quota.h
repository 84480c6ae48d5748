// A resource that the users of a server share, so that none of them can use up what the others need.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "host/osal/mutex.h"

namespace host {

enum class Resource : uint8_t { kConnections, kReceivedBytes, kRequests, kWorkers, kQueuedBytes };
constexpr size_t kResourceNum = 5;

class Quota;

// A user of a server, and what he holds of each resource.
class User {
public:
    User(uid_t number, bool privileged) : uid(number), isPrivileged(privileged) {}
    User(const User &) = delete;
    User &operator=(const User &) = delete;

    const uid_t uid;
    const bool isPrivileged; // root, or the server's own

private:
    friend class Quota;
    std::array<uint64_t, kResourceNum> holds_{}; // each guarded by its quota's mutex
};

// What a user has taken of a resource; it is given back at the end. The quota and the user outlive it.
class Charge {
public:
    Charge() = default;
    Charge(Charge &&other) noexcept { *this = std::move(other); }
    Charge &operator=(Charge &&other) noexcept;
    ~Charge() { GiveBack(); }

    // Whether anything was taken.
    explicit operator bool() const { return quota_ != nullptr; }
    // Takes more, or gives some back. False when there is not so much for the user, who keeps what he holds.
    bool Resize(uint64_t amount);
    void GiveBack();

private:
    friend class Quota;
    Charge(Quota &quota, User &user, uint64_t amount) : quota_(&quota), user_(&user), amount_(amount) {}

    Quota *quota_ = nullptr;
    User *user_ = nullptr;
    uint64_t amount_ = 0;
};

// Of what is free, a user may hold at most one part of as many as there are users that hold some, and one part more. So
// the n-th of users who take all they can has a share of 1 / (n (n + 1)), and there always is one for the next. A part
// of the whole is left to privileged users, who may take whatever is free.
class Quota {
public:
    // Any user may hold `least` of what is free, however many there are.
    Quota(Resource resource, uint64_t total, uint64_t reserve, uint64_t least = 1);
    Quota(const Quota &) = delete;
    Quota &operator=(const Quota &) = delete;

    // Nothing when there is not so much for the user.
    Charge Take(User &user, uint64_t amount = 1) TARN_EXCLUDES(mutex_);
    bool Has(const User &user, uint64_t amount = 1) const TARN_EXCLUDES(mutex_);

    uint64_t Total() const { return total_; }
    uint64_t Used() const TARN_EXCLUDES(mutex_);
    uint64_t HeldBy(const User &user) const TARN_EXCLUDES(mutex_);
    // Whether more is refused because all is in use, and not because of a user's share.
    bool IsExhausted(uint64_t amount = 1) const TARN_EXCLUDES(mutex_);

private:
    friend class Charge;
    bool Resize(User &user, uint64_t from, uint64_t to) TARN_EXCLUDES(mutex_);
    bool Allows(const User &user, uint64_t more) const TARN_REQUIRES(mutex_);
    void Change(User &user, uint64_t more, uint64_t less) TARN_REQUIRES(mutex_);

    const size_t resource_;
    const uint64_t total_, reserve_, least_;
    mutable Mutex mutex_;
    uint64_t used_ TARN_GUARDED_BY(mutex_) = 0;       // by those who are not privileged
    uint64_t privileged_ TARN_GUARDED_BY(mutex_) = 0; // by those who are
    uint64_t holders_ TARN_GUARDED_BY(mutex_) = 0;    // users who hold some and are not privileged
};

} // namespace host
