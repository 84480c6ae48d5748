#include "host/runtime/quota.h"

#include <algorithm>

namespace host {

Charge &Charge::operator=(Charge &&other) noexcept {
    if (this != &other) {
        GiveBack();
        quota_ = std::exchange(other.quota_, nullptr);
        user_ = other.user_;
        amount_ = other.amount_;
    }
    return *this;
}

bool Charge::Resize(uint64_t amount) {
    if (!quota_->Resize(*user_, amount_, amount)) {
        return false;
    }
    amount_ = amount;
    return true;
}

void Charge::GiveBack() {
    if (quota_ != nullptr) {
        quota_->Resize(*user_, amount_, 0);
        quota_ = nullptr;
    }
}

Quota::Quota(Resource resource, uint64_t total, uint64_t reserve, uint64_t least)
    : resource_(static_cast<size_t>(resource)), total_(total), reserve_(reserve), least_(least) {}

Charge Quota::Take(User &user, uint64_t amount) {
    return Resize(user, 0, amount) ? Charge(*this, user, amount) : Charge();
}

bool Quota::Has(const User &user, uint64_t amount) const {
    const MutexLock lock(mutex_);
    return Allows(user, amount);
}

uint64_t Quota::Used() const {
    const MutexLock lock(mutex_);
    return used_ + privileged_;
}

uint64_t Quota::HeldBy(const User &user) const {
    const MutexLock lock(mutex_);
    return user.holds_[resource_];
}

bool Quota::IsExhausted(uint64_t amount) const {
    const MutexLock lock(mutex_);
    return used_ + privileged_ + amount > total_;
}

bool Quota::Resize(User &user, uint64_t from, uint64_t to) {
    const MutexLock lock(mutex_);
    if (to > from && !Allows(user, to - from)) {
        return false;
    }
    Change(user, to, from);
    return true;
}

// What privileged users hold comes out of their reserve first.
bool Quota::Allows(const User &user, uint64_t more) const {
    const uint64_t taken = used_ + (user.isPrivileged ? privileged_ : std::max(privileged_, reserve_));
    const uint64_t free = total_ - std::min(total_, taken);
    if (more > free || user.isPrivileged) {
        return more <= free;
    }
    const uint64_t holds = user.holds_[resource_];
    const uint64_t holders = holders_ + (holds == 0 ? 1 : 0);
    return holds + more <= std::max(least_, (free + holds) / (holders + 1));
}

void Quota::Change(User &user, uint64_t more, uint64_t less) {
    uint64_t &holds = user.holds_[resource_];
    const bool held = holds != 0;
    holds += more - less;
    (user.isPrivileged ? privileged_ : used_) += more - less;
    if (!user.isPrivileged && held != (holds != 0)) {
        holders_ += held ? uint64_t{0} - 1 : 1;
    }
}

} // namespace host
