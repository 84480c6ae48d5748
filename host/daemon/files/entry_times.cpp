// Compiled with the system's time_t.
#include "host/daemon/files/entry_times.h"

#include <archive_entry.h>

namespace tarnd {

void SetTimes(archive_entry *entry, EntryTime accessed, EntryTime modified, EntryTime changed) {
    archive_entry_set_atime(entry, static_cast<time_t>(accessed.seconds), accessed.nanoseconds);
    archive_entry_set_mtime(entry, static_cast<time_t>(modified.seconds), modified.nanoseconds);
    archive_entry_set_ctime(entry, static_cast<time_t>(changed.seconds), changed.nanoseconds);
}

int64_t ModifiedAt(archive_entry *entry) {
    return archive_entry_mtime(entry);
}

} // namespace tarnd
