// Calls of all methods in random order, made from the descriptions: half of them with arguments that must be answered,
// half with any that fit the types. Says of an outcome whether the call asked for it.
#pragma once

#include <atomic>
#include <random>
#include <set>

#include <nlohmann/json_fwd.hpp>

#include "host/runtime/client.h"

// Declared only, since a file that takes host/describe in has its codecs and can't have a test's own unit.
namespace host::describe {
struct Method;
struct Slot;
struct Type;
} // namespace host::describe

namespace kit {

// The processes that calls are about; they may be replaced meanwhile.
struct Scene {
    std::atomic<uint32_t> daemon = 0;
    std::atomic<uint32_t> agent = 0;
    std::atomic<uint32_t> subject = 0;
    std::atomic<uint32_t> thread = 0;  // of the subject
    std::atomic<uint64_t> address = 0; // that the subject has memory at
};

class Mix {
public:
    Mix(const Scene &scene, uint64_t seed) : scene_(scene), random_(seed) {}

    struct Call {
        const host::describe::Method *method;
        uint32_t pid;     // whose agent, else 0
        bool valid;       // must be answered
        std::string text; // of the request, as JSON
        std::vector<uint8_t> request;

        const char *Name() const;
        host::CallRequest WithDeadline(std::chrono::milliseconds deadline) const;
    };
    Call Next();

    std::mt19937_64 &Random() { return random_; }

private:
    using Json = nlohmann::ordered_json;
    uint64_t Pick(std::initializer_list<uint64_t> values);
    uint32_t ProcessFor(const host::describe::Method &method) const;
    Json AnyValue(const host::describe::Method &method, const host::describe::Slot &slot);
    Json AnyRecord(const host::describe::Method &method, const host::describe::Type &type);
    Json ValidRequest(const host::describe::Method &method) const;

    const Scene &scene_;
    std::mt19937_64 random_;
};

// The status that a call ended with: its own, or the errno value in its reply's uiResult; 0 after success. A transport
// error is 1000 more than its errno value, a reply that is refused 2000.
uint32_t StatusOf(const Mix::Call &call, const host::CallOutcome &outcome);

// Whether the status is one that the call asked for. With failing peers, the transport's errors are too.
bool IsExpected(const Mix::Call &call, uint32_t status);
bool IsPeerFailure(uint32_t status);

std::string Tell(const Mix::Call &call, const host::CallOutcome &outcome);

// How long the proofs run: TARN_PROOF_SECONDS, or the default.
std::chrono::seconds ProofTime(std::chrono::seconds otherwise);

} // namespace kit
