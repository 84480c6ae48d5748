#include "host/daemon/files/archives.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <locale.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>

#include "host/daemon/files/archive_mark.h"
#include "host/daemon/files/entry_times.h"
#include "host/daemon/files/left_out.h"
#include "host/daemon/files/progress.h"
#include "host/meaning/check.h"
#include "host/meaning/methods.h"
#include "host/osal/error.h"
#include "host/osal/log.h"
#include "host/osal/text.h"
#include "host/store/files.h"

namespace tarnd {

namespace {

using host::Descriptor;
using host::Fail;
using host::FileAside;

// The bytes of a file's holes, which no disk holds; counted until there are more than that.
uint64_t HoleBytes(const Descriptor &file, off_t size, uint64_t most) {
    uint64_t bytes = 0;
    for (off_t at = 0; at < size && bytes <= most;) {
        const off_t hole = lseek(file.Fd(), at, SEEK_HOLE);
        if (hole < 0) {
            break; // a file system that does not tell
        }
        const off_t data = lseek(file.Fd(), hole, SEEK_DATA);
        at = data < 0 ? size : std::min(data, size);
        bytes += static_cast<uint64_t>(at - std::min(hole, size));
    }
    return bytes;
}

// Names are marked as UTF-8 where that is the charset of the thread that writes them. One that is none is not marked.
class Charset {
public:
    explicit Charset(const std::string &name)
        : utf8_(host::IsText(name) ? newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr) : nullptr),
          before_(uselocale(utf8_)) {}
    ~Charset() {
        uselocale(before_);
        if (utf8_ != nullptr) {
            freelocale(utf8_);
        }
    }
    Charset(const Charset &) = delete;
    Charset &operator=(const Charset &) = delete;

private:
    const locale_t utf8_, before_;
};

class ZipWriter {
public:
    ZipWriter(const FileAside &target, bool stored, const ArchiveLimits &limits, Progress &progress)
        : target_(target), progress_(progress), left_(limits) {
        Check(archive_write_set_format_zip(zip_.get()));
        Check(stored ? archive_write_zip_set_compression_store(zip_.get())
                     : archive_write_zip_set_compression_deflate(zip_.get()));
        Check(archive_write_set_bytes_in_last_block(zip_.get(), 1));
        Check(archive_write_open2(zip_.get(), this, nullptr, WriteOrDrop, nullptr, nullptr));
    }

    ~ZipWriter() { drops_ = true; } // of an archive that was given up, the end need not be written
    ZipWriter(const ZipWriter &) = delete;
    ZipWriter &operator=(const ZipWriter &) = delete;

    const LeftOut &Lacks() const { return leftOut_; }

    // Not a FIFO, a device or a socket, nor the archive itself.
    bool Takes(const struct stat &status) const {
        return S_ISDIR(status.st_mode) || (S_ISREG(status.st_mode) && !target_.Is(status));
    }

    // A file, or a directory with all that is in it; what it does not take, or has no room for, is left out.
    void Add(Descriptor source, const std::string &path, uint32_t depth = 0) {
        const struct stat status = source.Status();
        if (S_ISDIR(status.st_mode)) {
            AddDirectory(std::move(source), path, depth);
        } else if (!Takes(status)) {
            return;
        } else if (depth != 0 && IsOwnArchive(source)) {
            leftOut_.Add(path + ": an archive, which is packed only when it is asked for itself");
        } else if (HasRoom(source, path, status)) {
            AddFile(source, path, status);
        }
    }

    void Close() {
        Check(archive_write_close(zip_.get()));
        MarkArchive(target_.File());
    }

private:
    void AddDirectory(Descriptor source, const std::string &path, uint32_t depth) {
        if (depth == left_.depth) {
            leftOut_.Add(fmt::format("{}: more than {} directories deep", path, depth));
            return;
        }
        const std::vector<std::string> names = host::NamesIn(source, left_.entries + 1);
        if (names.empty() && !path.empty()) {
            WriteHeader(path, source.Status());
            Check(archive_write_finish_entry(zip_.get()));
        }
        for (const std::string &name : names) {
            progress_.Add(0);
            if (left_.entries == 0) {
                leftOut_.Add((path.empty() ? name : path + "/" + name) + " and what follows: too many files");
                return;
            }
            --left_.entries;
            if (!host::IsAside(name)) {
                AddEntry(source, name, path.empty() ? name : path + "/" + name, depth);
            }
        }
    }

    void AddEntry(const Descriptor &directory, const std::string &name, const std::string &path, uint32_t depth) {
        try {
            Add(host::OpenIn(directory, name), path, depth + 1);
        } catch (const std::system_error &error) {
            // a link, not ours to read, gone since the directory was read, or one that its owner keeps from being
            // opened
            const int code = error.code().value();
            if (code != EACCES && code != ENOENT && code != EWOULDBLOCK) {
                throw;
            }
            leftOut_.Add(error.what());
        }
    }

    // Takes the room that a file needs.
    bool HasRoom(const Descriptor &file, const std::string &path, const struct stat &status) {
        const auto size = static_cast<uint64_t>(status.st_size);
        if (size > left_.bytes) {
            leftOut_.Add(fmt::format("{}: too large, {} bytes", path, size));
            return false;
        }
        const uint64_t holes = HoleBytes(file, status.st_size, left_.holeBytes);
        if (holes > left_.holeBytes) {
            leftOut_.Add(fmt::format("{}: too large, {} bytes with holes", path, size));
            return false;
        }
        left_.bytes -= size;
        left_.holeBytes -= holes;
        return true;
    }

    static void Describe(archive_entry *entry, const struct stat &status) {
        archive_entry_set_mode(entry, status.st_mode);
        archive_entry_set_uid(entry, status.st_uid);
        archive_entry_set_gid(entry, status.st_gid);
        archive_entry_set_size(entry, status.st_size);
        const auto time = [](const timespec &from) { return EntryTime{from.tv_sec, from.tv_nsec}; };
        SetTimes(entry, time(status.st_atim), time(status.st_mtim), time(status.st_ctim));
    }

    void WriteHeader(const std::string &path, const struct stat &status) {
        const std::unique_ptr<archive_entry, void (*)(archive_entry *)> entry(archive_entry_new(), archive_entry_free);
        archive_entry_set_pathname(entry.get(), path.c_str());
        Describe(entry.get(), status);
        const Charset charset(path);
        Check(archive_write_header(zip_.get(), entry.get()));
    }

    void AddFile(const Descriptor &source, const std::string &path, const struct stat &status) {
        WriteHeader(path, status);
        // The header has promised a size: a log that grows meanwhile is cut, one that shrinks filled up with zeros.
        char buffer[65536];
        for (auto left = static_cast<uint64_t>(status.st_size); left != 0;) {
            const auto wanted = static_cast<size_t>(std::min<uint64_t>(left, sizeof buffer));
            const ssize_t length = pread(source.Fd(), buffer, wanted, status.st_size - static_cast<off_t>(left));
            if (length < 0) {
                Fail(errno, path);
            }
            const size_t size = length == 0 ? wanted : static_cast<size_t>(length);
            if (length == 0) {
                memset(buffer, 0, size);
            }
            const bool taken = archive_write_data(zip_.get(), buffer, size) == static_cast<la_ssize_t>(size);
            Check(taken ? ARCHIVE_OK : ARCHIVE_FATAL);
            left -= size;
            progress_.Add(size);
        }
        Check(archive_write_finish_entry(zip_.get()));
        progress_.AddFile();
    }

    void Check(int result) {
        if (failure_ != nullptr) {
            std::rethrow_exception(failure_);
        }
        if (result < ARCHIVE_WARN) {
            const int error = archive_errno(zip_.get());
            const char *const text = archive_error_string(zip_.get());
            Fail(error > 0 ? error : EIO, text == nullptr ? target_.Name() : text);
        }
    }

    // libarchive is not told of a failure, after which it would lose its buffers: Check throws it.
    static la_ssize_t WriteOrDrop(struct archive *, void *self, const void *bytes, size_t size) {
        auto &writer = *static_cast<ZipWriter *>(self);
        if (!writer.drops_) {
            try {
                host::WriteAll(writer.target_.File(), {static_cast<const char *>(bytes), size}, writer.target_.Name());
            } catch (...) {
                writer.failure_ = std::current_exception();
                writer.drops_ = true;
            }
        }
        return static_cast<la_ssize_t>(size);
    }

    const FileAside &target_;
    Progress &progress_;
    ArchiveLimits left_;
    LeftOut leftOut_;
    bool drops_ = false;
    std::exception_ptr failure_;
    std::unique_ptr<struct archive, int (*)(struct archive *)> zip_{archive_write_new(), archive_write_free};
};

// What this daemon left in a directory when it was killed.
void RemoveUnfinishedIn(const Descriptor &directory, const std::string &path) {
    if (const size_t removed = host::RemoveAbandoned(directory); removed != 0) {
        host::Log().info("{}: removed {} unfinished files", path, removed);
    }
}

void RemoveUnfinishedIn(const std::string &path) {
    try {
        RemoveUnfinishedIn(host::OpenDirectory(path), path);
    } catch (const std::system_error &error) {
        host::Log().info("unfinished files are not looked for: {}", error.what());
    }
}

// An archive takes the place of no file but an older archive.
void CheckReplaces(const Descriptor &directory, const std::string &name) {
    struct stat status {};
    if (fstatat(directory.Fd(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT) {
        return;
    }
    if (S_ISLNK(status.st_mode) || !IsOwnArchive(host::OpenIn(directory, name))) {
        Fail(EEXIST, name + " is there, and no archive that the daemon made");
    }
}

} // namespace

Archives::Archives(std::string logDirectory, std::map<std::string, std::string> copyTargets, const host::Clocks &clocks,
                   const ArchiveLimits &limits)
    : logDirectory_(std::move(logDirectory)), copyTargets_(std::move(copyTargets)), clocks_(clocks), limits_(limits) {
    RemoveUnfinishedIn(logDirectory_);
    for (const auto &[name, directory] : copyTargets_) {
        RemoveUnfinishedIn(directory);
    }
}

std::string Archives::Pack(const Packing &packing, const host::Check &check) const {
    const std::string name(packing.name);
    const std::vector<std::string> sourceNames = host::NamesBeneath(logDirectory_, packing.source);
    Descriptor source = host::OpenBeneath(logDirectory_, sourceNames);
    const Descriptor directory = host::OpenBeneath(logDirectory_, host::NamesBeneath(logDirectory_, packing.directory));
    Progress progress("archive " + name, clocks_, check);
    RemoveUnfinishedIn(directory, std::string(packing.directory));
    CheckReplaces(directory, name);
    FileAside target(directory, name, 0640);
    ZipWriter writer(target, packing.stored, limits_, progress);
    if (!writer.Takes(source.Status())) {
        throw host::meaning::BadMember(host::methods::ZipLogFile, "source", packing.source,
                                       "a directory, or a file that is not the archive");
    }
    writer.Add(std::move(source), sourceNames.empty() ? "" : sourceNames.back());
    writer.Close();
    progress.Add(0);
    CheckReplaces(directory, name);
    target.Commit();
    progress.Done();
    return writer.Lacks().Text();
}

} // namespace tarnd
