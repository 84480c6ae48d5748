#include "host/daemon/files/archive_mark.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "host/osal/error.h"
#include "host/store/files.h"

namespace tarnd {

namespace {

constexpr std::string_view kMark = "a log archive of tarnd";

// The directory's end, with which an archive ends. Its last word is the length of the comment that follows.
constexpr std::string_view kEnd = "PK\5\6";
constexpr size_t kEndSize = 22;

// So many bytes before the end, or fewer.
std::string Last(const host::Descriptor &file, size_t bytes) {
    std::string last(bytes, 0);
    const off_t at = file.Status().st_size - static_cast<off_t>(bytes);
    const ssize_t length = at < 0 ? -1 : pread(file.Fd(), last.data(), bytes, at);
    last.resize(length < 0 ? 0 : static_cast<size_t>(length));
    return last;
}

std::string LengthOfMark() {
    return {static_cast<char>(kMark.size()), 0};
}

} // namespace

void MarkArchive(const host::Descriptor &archive) {
    if (const std::string end = Last(archive, kEndSize); !end.starts_with(kEnd) || !end.ends_with(std::string(2, 0))) {
        host::Fail(EIO, "an archive that does not end as expected");
    }
    const std::string length = LengthOfMark();
    const off_t at = archive.Status().st_size - static_cast<off_t>(length.size());
    if (pwrite(archive.Fd(), length.data(), length.size(), at) != static_cast<ssize_t>(length.size())) {
        host::Fail(errno, "the mark of an archive");
    }
    host::WriteAll(archive, kMark, "the mark of an archive");
}

bool IsOwnArchive(const host::Descriptor &file) {
    const struct stat status = file.Status();
    if (!S_ISREG(status.st_mode) || status.st_uid != geteuid()) {
        return false;
    }
    const std::string last = Last(file, kEndSize + kMark.size());
    return last.starts_with(kEnd) && last.ends_with(LengthOfMark().append(kMark));
}

} // namespace tarnd
