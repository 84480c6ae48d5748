#include "host/daemon/processes/erased_faults.h"

namespace tarnd {

namespace {

using host::Document;

constexpr char kDocument[] = "erased-faults";
constexpr uint32_t kVersion = 1;

} // namespace

ErasedFaults::ErasedFaults(host::Store &store) : store_(store) {
    const host::MutexLock lock(mutex_);
    store_.Load(kDocument, kVersion, [this](const Document &content) TARN_REQUIRES(mutex_) {
        Sequences sequences;
        for (const Document &one : content.AsArray()) {
            sequences[{one.Get<uint32_t>(0), one.Get<uint32_t>(1)}] = one.Get<uint64_t>(2);
        }
        sequences_ = std::move(sequences);
    });
}

bool ErasedFaults::Has(const host::blackbox::RecordPlace &place) const {
    const host::MutexLock lock(mutex_);
    const auto found = sequences_.find({place.user, place.slot});
    return found != sequences_.end() && found->second == place.sequence;
}

void ErasedFaults::Add(const std::vector<host::blackbox::RecordPlace> &places) {
    if (places.empty()) {
        return;
    }
    const host::MutexLock lock(mutex_);
    Sequences sequences = sequences_;
    for (const auto &place : places) {
        sequences[{place.user, place.slot}] = place.sequence;
    }
    Document::Array content;
    for (const auto &[where, sequence] : sequences) {
        content.push_back(Document::Array{where.first, where.second, sequence});
    }
    store_.Save(kDocument, kVersion, content);
    sequences_ = std::move(sequences);
}

} // namespace tarnd
