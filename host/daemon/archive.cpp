// Log archives. Whatever a path in a request says, nothing outside the log directory is read or written: paths are
// followed name by name from the open directory, and no link is followed.
#include <archive.h>
#include <archive_entry.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "host/answer/answer.h"
#include "host/daemon/state.h"
#include "host/daemon/values.h"
#include "host/osal/log.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

constexpr int kMaxDepth = 32; // directories within directories; each holds a descriptor

[[noreturn]] void Fail(int error, const std::string &what) {
    throw std::system_error(error, std::generic_category(), what);
}

class Descriptor {
public:
    Descriptor(int fd, const std::string &what) : fd_(fd) {
        if (fd_ < 0) {
            Fail(errno == ELOOP ? EACCES : errno, errno == ELOOP ? what + " is a link" : what);
        }
    }
    Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    int Fd() const { return fd_; }
    int Release() { return std::exchange(fd_, -1); }

    struct stat Status() const {
        struct stat status {};
        if (fstat(fd_, &status) != 0) {
            Fail(errno, "fstat");
        }
        return status;
    }

private:
    int fd_;
};

// Not blocking, since a FIFO would wait for its writer.
Descriptor OpenIn(const Descriptor &directory, const std::string &name) {
    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    return {openat(directory.Fd(), name.c_str(), kFlags), name};
}

// The names on the way from the log directory to a path, which is relative to it or absolute within it.
std::vector<std::string> NamesBeneath(const std::string &root, std::string_view path) {
    if (path.starts_with('/')) {
        if (!path.starts_with(root) || (path.size() > root.size() && path[root.size()] != '/')) {
            Fail(EACCES, fmt::format("{} lies outside the log directory {}", path, root));
        }
        path.remove_prefix(root.size());
    }
    std::vector<std::string> names;
    while (!path.empty()) {
        const std::string_view name = path.substr(0, path.find('/'));
        path.remove_prefix(std::min(path.size(), name.size() + 1));
        if (name == "..") {
            Fail(EACCES, "\"..\" in a path of the log directory");
        }
        if (!name.empty() && name != ".") {
            names.emplace_back(name);
        }
    }
    return names;
}

Descriptor OpenBeneath(const std::string &root, const std::vector<std::string> &names) {
    Descriptor at(open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), "the log directory " + root);
    for (const std::string &name : names) {
        at = OpenIn(at, name);
    }
    return at;
}

bool SameFile(const struct stat &a, const struct stat &b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// A file that takes its name only when it is complete, so that nobody ever sees a part of it.
class FileAside {
public:
    FileAside(const Descriptor &directory, std::string name)
        : directory_(directory), name_(std::move(name)), aside_(AsideName()),
          file_(openat(directory.Fd(), aside_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640),
                aside_) {}
    ~FileAside() {
        if (!committed_) {
            unlinkat(directory_.Fd(), aside_.c_str(), 0);
        }
    }
    FileAside(const FileAside &) = delete;
    FileAside &operator=(const FileAside &) = delete;

    const Descriptor &File() const { return file_; }

    // True for this file and for the one that it is going to replace.
    bool Is(const struct stat &status) const {
        struct stat older {};
        const bool replaces = fstatat(directory_.Fd(), name_.c_str(), &older, AT_SYMLINK_NOFOLLOW) == 0;
        return SameFile(status, file_.Status()) || (replaces && SameFile(status, older));
    }

    void Commit() {
        if (fsync(file_.Fd()) != 0 || renameat(directory_.Fd(), aside_.c_str(), directory_.Fd(), name_.c_str()) != 0) {
            Fail(errno, name_);
        }
        committed_ = true;
        fsync(directory_.Fd());
    }

private:
    static std::string AsideName() {
        static std::atomic<uint32_t> count = 0;
        return fmt::format(".archive.{}.{}.partial", getpid(), count++);
    }

    const Descriptor &directory_;
    const std::string name_;
    const std::string aside_;
    Descriptor file_;
    bool committed_ = false;
};

class ZipWriter {
public:
    ZipWriter(const FileAside &target, uint32_t option) : target_(target) {
        Check(archive_write_set_format_zip(zip_.get()));
        const bool stored = option == TARND_ZIP_STORED;
        Check(stored ? archive_write_zip_set_compression_store(zip_.get())
                     : archive_write_zip_set_compression_deflate(zip_.get()));
        Check(archive_write_set_bytes_in_last_block(zip_.get(), 1));
        Check(archive_write_open_fd(zip_.get(), target.File().Fd()));
    }

    // A file, or a directory with all that is in it; anything else is left out.
    void Add(Descriptor source, const std::string &path, int depth = 0) {
        const struct stat status = source.Status();
        if (S_ISDIR(status.st_mode)) {
            AddDirectory(std::move(source), path, depth);
        } else if (S_ISREG(status.st_mode) && !target_.Is(status)) {
            AddFile(source, path, status);
        }
    }

    uint32_t FileNum() const { return fileNum_; }

    void Close() { Check(archive_write_close(zip_.get())); }

private:
    void AddDirectory(Descriptor source, const std::string &path, int depth) {
        if (depth == kMaxDepth) {
            Fail(ENAMETOOLONG, fmt::format("{}: more than {} directories deep", path, kMaxDepth));
        }
        for (const std::string &name : Names(source)) {
            try {
                Add(OpenIn(source, name), path.empty() ? name : path + "/" + name, depth + 1);
            } catch (const std::system_error &error) {
                // a link, a socket, or gone since the directory was read
                const int code = error.code().value();
                if (code != EACCES && code != ENXIO && code != ENOENT) {
                    throw;
                }
                host::Log().info("left out of the archive: {}", error.what());
            }
        }
    }

    static std::vector<std::string> Names(const Descriptor &directory) {
        const int own = dup(directory.Fd()); // closedir closes it
        const std::unique_ptr<DIR, int (*)(DIR *)> stream(own < 0 ? nullptr : fdopendir(own), closedir);
        if (stream == nullptr) {
            const int error = errno;
            close(own);
            Fail(error, "reading a directory");
        }
        std::vector<std::string> names;
        while (const dirent *entry = readdir(stream.get())) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") {
                names.push_back(name);
            }
        }
        std::sort(names.begin(), names.end());
        return names;
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
            if (archive_write_data(zip_.get(), buffer, size) != static_cast<la_ssize_t>(size)) {
                FailArchive();
            }
            left -= size;
        }
        Check(archive_write_finish_entry(zip_.get()));
        ++fileNum_;
    }

    void Check(int result) {
        if (result < ARCHIVE_WARN) {
            FailArchive();
        }
    }

    [[noreturn]] void FailArchive() {
        const int error = archive_errno(zip_.get());
        const char *const text = archive_error_string(zip_.get());
        Fail(error > 0 ? error : EIO, text == nullptr ? "the archive" : text);
    }

    const FileAside &target_;
    std::unique_ptr<struct archive, int (*)(struct archive *)> zip_{archive_write_new(), archive_write_free};
    uint32_t fileNum_ = 0;
};

std::string CheckedName(std::string_view name) {
    if (name.empty() || name == "." || name == ".." || name.find('/') != name.npos) {
        throw host::BadValue("szZipName", fmt::format("\"{}\"", name), "a file name");
    }
    return std::string(name);
}

void Zip(const Tarn_sys_diag_ZiploginfoInput &request) {
    const std::string &root = TheSettings().logDirectory;
    const std::string name = CheckedName(host::TextOf(request.szZipName));
    if (request.uiZipOption != TARND_ZIP_COMPRESSED && request.uiZipOption != TARND_ZIP_STORED) {
        throw host::BadValue("uiZipOption", request.uiZipOption, "0 compressed or 1 stored");
    }
    const std::vector<std::string> sourceNames = NamesBeneath(root, host::TextOf(request.szLogPath));
    Descriptor source = OpenBeneath(root, sourceNames);
    const Descriptor directory = OpenBeneath(root, NamesBeneath(root, host::TextOf(request.szZipPath)));
    FileAside target(directory, name);
    ZipWriter writer(target, request.uiZipOption);
    writer.Add(std::move(source), sourceNames.empty() ? "" : sourceNames.back());
    writer.Close();
    target.Commit();
    host::Log().info("archive {} of {} files", name, writer.FileNum());
}

} // namespace

} // namespace tarnd

uint32_t ZipLogFile(const Tarn_sys_diag_ZiploginfoInput *request, void *replyCtx) {
    return host::AnswerResult(__func__, replyCtx, [&] { tarnd::Zip(*request); });
}
