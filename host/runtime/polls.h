// Requests that are answered when there is news, or when they have waited for as long as they wanted to. Meanwhile they
// hold no thread; their users are charged for them as for any request.
#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "host/osal/mutex.h"
#include "host/runtime/loop.h"
#include "host/runtime/own_methods.h"
#include "host/runtime/request.h"

namespace host {

class Polls {
public:
    // Without methods nothing is asked.
    Polls(Loop &loop, OwnMethods *methods);
    Polls(const Polls &) = delete;
    Polls &operator=(const Polls &) = delete;
    ~Polls() { Close(); }

    bool Has(std::string_view method) const { return methods_ != nullptr && methods_->Has(method); }

    void Open();
    // Answers the request, now or later.
    void Ask(const std::shared_ptr<Request> &request, OwnMethods::Question question);
    // Answers those that wait with what there is, and from now on none waits.
    void Close();

private:
    struct Poll {
        std::weak_ptr<Request> request; // gone when it is over
        OwnMethods::Question question;
        uint64_t timer;
    };
    using Table = std::map<uint64_t, Poll>;

    // Whether it waits. `last`: it is answered in any case.
    bool Waits(const std::shared_ptr<Request> &request, const OwnMethods::Question &question, bool last,
               std::chrono::milliseconds &wait) const;
    bool Enter(const std::shared_ptr<Request> &request, const OwnMethods::Question &question,
               std::chrono::milliseconds wait, uint64_t news) TARN_EXCLUDES(mutex_);
    void DropOver() TARN_REQUIRES(mutex_);
    void OnNews() TARN_EXCLUDES(mutex_);
    void AskAgain() TARN_EXCLUDES(mutex_);
    void Expire(uint64_t number) TARN_EXCLUDES(mutex_);
    void AnswerNow(Table polls) const;
    uint64_t News() const TARN_EXCLUDES(mutex_);

    Loop &loop_;
    OwnMethods *const methods_;
    mutable Mutex mutex_;
    Table polls_ TARN_GUARDED_BY(mutex_);
    uint64_t lastNumber_ TARN_GUARDED_BY(mutex_) = 0;
    uint64_t news_ TARN_GUARDED_BY(mutex_) = 0; // how often there was some
    bool open_ TARN_GUARDED_BY(mutex_) = false;
};

} // namespace host
