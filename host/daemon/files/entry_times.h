// Times of an archive's files. libarchive takes them in the system libraries' time_t, which on a 32-bit machine may
// have 32 bits, where ours has 64.
#pragma once

#include <cstdint>

struct archive_entry;

namespace tarnd {

struct EntryTime {
    int64_t seconds;
    long nanoseconds;
};

void SetTimes(archive_entry *entry, EntryTime accessed, EntryTime modified, EntryTime changed);
int64_t ModifiedAt(archive_entry *entry);

} // namespace tarnd
