// The records of faults that are erased though they stay where they are: the files belong to other users, and the
// daemon has no right to write them.
#pragma once

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "host/blackbox/reader.h"
#include "host/osal/mutex.h"
#include "host/store/store.h"

namespace tarnd {

class ErasedFaults {
public:
    // Takes over what an earlier run kept.
    explicit ErasedFaults(host::Store &store);

    bool Has(const host::blackbox::RecordPlace &place) const;
    void Add(const std::vector<host::blackbox::RecordPlace> &places);

private:
    // A record's sequence by its user and slot: the slot's next record is another.
    using Sequences = std::map<std::pair<uint32_t, uint32_t>, uint64_t>;

    host::Store &store_;
    mutable host::Mutex mutex_;
    Sequences sequences_ TARN_GUARDED_BY(mutex_);
};

} // namespace tarnd
