#include "host/daemon/files/archives.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>

#include "host/daemon/files/progress.h"
#include "host/meaning/check.h"
#include "host/meaning/methods.h"
#include "host/osal/error.h"
#include "host/osal/log.h"
#include "host/store/files.h"

namespace tarnd {

namespace {

using host::Descriptor;
using host::Fail;
using host::FileAside;

constexpr int kMaxDepth = 32; // directories within directories; each holds a descriptor

class ZipWriter {
public:
    ZipWriter(const FileAside &target, bool stored, Progress &progress) : target_(target), progress_(progress) {
        Check(archive_write_set_format_zip(zip_.get()));
        Check(stored ? archive_write_zip_set_compression_store(zip_.get())
                     : archive_write_zip_set_compression_deflate(zip_.get()));
        Check(archive_write_set_bytes_in_last_block(zip_.get(), 1));
        Check(archive_write_open2(zip_.get(), this, nullptr, WriteOrDrop, nullptr, nullptr));
    }

    ~ZipWriter() { drops_ = true; } // of an archive that was given up, the end need not be written
    ZipWriter(const ZipWriter &) = delete;
    ZipWriter &operator=(const ZipWriter &) = delete;

    // Not a FIFO, a device or a socket, nor the archive itself.
    bool Takes(const struct stat &status) const {
        return S_ISDIR(status.st_mode) || (S_ISREG(status.st_mode) && !target_.Is(status));
    }

    // A file, or a directory with all that is in it; what it does not take is left out.
    void Add(Descriptor source, const std::string &path, int depth = 0) {
        const struct stat status = source.Status();
        if (S_ISDIR(status.st_mode)) {
            AddDirectory(std::move(source), path, depth);
        } else if (Takes(status)) {
            AddFile(source, path, status);
        }
    }

    void Close() { Check(archive_write_close(zip_.get())); }

private:
    void AddDirectory(Descriptor source, const std::string &path, int depth) {
        if (depth == kMaxDepth) {
            Fail(ENAMETOOLONG, fmt::format("{}: more than {} directories deep", path, kMaxDepth));
        }
        for (const std::string &name : host::NamesIn(source)) {
            progress_.Add(0);
            if (host::IsAside(name)) {
                continue;
            }
            try {
                Add(host::OpenIn(source, name), path.empty() ? name : path + "/" + name, depth + 1);
            } catch (const std::system_error &error) {
                // a link, not ours to read, or gone since the directory was read
                const int code = error.code().value();
                if (code != EACCES && code != ENOENT) {
                    throw;
                }
                host::Log().info("left out of the archive: {}", error.what());
            }
        }
    }

    void AddFile(const Descriptor &source, const std::string &path, const struct stat &status) {
        const std::unique_ptr<archive_entry, void (*)(archive_entry *)> entry(archive_entry_new(), archive_entry_free);
        archive_entry_copy_stat(entry.get(), &status);
        archive_entry_set_pathname(entry.get(), path.c_str());
        Check(archive_write_header(zip_.get(), entry.get()));
        // The header has promised a size: a log that grows meanwhile is cut, one that shrinks filled up with zeros.
        char buffer[65536];
        for (auto left = static_cast<uint64_t>(status.st_size); left != 0;) {
            const auto wanted = static_cast<size_t>(std::min<uint64_t>(left, sizeof buffer));
            const ssize_t length = read(source.Fd(), buffer, wanted);
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
    bool drops_ = false;
    std::exception_ptr failure_;
    std::unique_ptr<struct archive, int (*)(struct archive *)> zip_{archive_write_new(), archive_write_free};
};

void RemoveUnfinishedBeneath(const Descriptor &directory, const std::string &path, int depth) {
    if (const size_t removed = host::RemoveAbandoned(directory); removed != 0) {
        host::Log().info("{}: removed {} unfinished files", path, removed);
    }
    for (const std::string &name : host::NamesIn(directory)) {
        struct stat status {};
        const bool isDirectory =
            fstatat(directory.Fd(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode);
        if (isDirectory && depth < kMaxDepth) {
            RemoveUnfinishedBeneath(host::OpenIn(directory, name), path + "/" + name, depth + 1);
        }
    }
}

void RemoveUnfinishedIn(const std::string &root) {
    try {
        RemoveUnfinishedBeneath(host::OpenDirectory(root), root, 0);
    } catch (const std::system_error &error) {
        host::Log().info("unfinished files are not looked for: {}", error.what());
    }
}

} // namespace

Archives::Archives(std::string logDirectory, std::map<std::string, std::string> copyTargets, const host::Clocks &clocks)
    : logDirectory_(std::move(logDirectory)), copyTargets_(std::move(copyTargets)), clocks_(clocks) {
    RemoveUnfinishedIn(logDirectory_);
    for (const auto &[name, directory] : copyTargets_) {
        RemoveUnfinishedIn(directory);
    }
}

void Archives::Pack(const Packing &packing, const host::Check &check) const {
    const std::string name(packing.name);
    const std::vector<std::string> sourceNames = host::NamesBeneath(logDirectory_, packing.source);
    Descriptor source = host::OpenBeneath(logDirectory_, sourceNames);
    const Descriptor directory = host::OpenBeneath(logDirectory_, host::NamesBeneath(logDirectory_, packing.directory));
    Progress progress("archive " + name, clocks_, check);
    FileAside target(directory, name, 0640);
    ZipWriter writer(target, packing.stored, progress);
    if (!writer.Takes(source.Status())) {
        throw host::meaning::BadMember(host::methods::ZipLogFile, "source", packing.source,
                                       "a directory, or a file that is not the archive");
    }
    writer.Add(std::move(source), sourceNames.empty() ? "" : sourceNames.back());
    writer.Close();
    progress.Add(0);
    target.Commit();
    progress.Done();
}

} // namespace tarnd
