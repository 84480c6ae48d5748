#include "host/store/store.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <fmt/format.h>

#include "host/osal/directories.h"
#include "host/osal/log.h"
#include "host/store/sha256.h"

namespace host {

namespace {

std::string FileOf(const std::string &name) {
    const auto allowed = [](char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-'; };
    if (name.empty() || !std::all_of(name.begin(), name.end(), allowed)) {
        throw std::invalid_argument(fmt::format("\"{}\" is no name for a document", name));
    }
    return name + ".json";
}

std::string DigestOf(const Document &content) {
    Sha256 digest;
    digest.Add(content.Dump());
    return digest.Hex();
}

// Far more than any document has.
constexpr size_t kMostBytes = 16U << 20;

void CheckSize(uint64_t bytes) {
    if (bytes > kMostBytes) {
        Fail(EFBIG, fmt::format("{} bytes, expected at most {}", bytes, kMostBytes));
    }
}

std::string TextOf(const Descriptor &file, const std::string &name) {
    const struct stat status = file.Status();
    if (!S_ISREG(status.st_mode)) {
        throw std::runtime_error("not a regular file");
    }
    CheckSize(static_cast<uint64_t>(status.st_size));
    std::string text;
    char buffer[16384];
    for (ssize_t length = 1; length != 0;) {
        length = read(file.Fd(), buffer, sizeof buffer);
        if (length < 0) {
            Fail(errno, name);
        }
        text.append(buffer, static_cast<size_t>(length));
    }
    return text;
}

// What others could enter before becomes this user's alone; root looks after anybody's.
void KeepPrivate(const Descriptor &directory, const std::filesystem::path &path) {
    const struct stat status = directory.Status();
    if (geteuid() != 0 && status.st_uid != geteuid()) {
        Fail(EPERM, fmt::format("state directory {} belongs to user {}, expected user {} (chown)", path.string(),
                                status.st_uid, geteuid()));
    }
    if ((status.st_mode & 077) != 0 && fchmod(directory.Fd(), 0700) != 0) {
        Fail(errno, path.string());
    }
}

} // namespace

Store::Store(const std::filesystem::path &directory) {
    if (directory.empty()) {
        return;
    }
    path_ = std::filesystem::absolute(directory).lexically_normal();
    if (const std::error_code error = MakeDirectories(path_, 0700); error) {
        throw std::system_error(error, path_.string());
    }
    directory_ = OpenDirectory(path_);
    if (faccessat(directory_.Fd(), ".", W_OK, AT_EACCESS) != 0 && errno == EROFS) {
        return; // it stays as it is, whoever else looks at it
    }
    KeepPrivate(directory_, path_);
    lock_.emplace(directory_, path_, std::chrono::milliseconds(0));
    RemoveAbandoned(directory_);
}

bool Store::Load(const std::string &name, uint32_t version, const Take &take) {
    const MutexLock lock(mutex_);
    try {
        const std::optional<Kept> document = Read(name, version);
        if (document) {
            take(document->content, document->version);
        }
        return document.has_value();
    } catch (const std::invalid_argument &) {
        throw;
    } catch (const std::exception &error) {
        SetAside(name, ".damaged", error.what());
        return false;
    }
}

bool Store::Load(const std::string &name, uint32_t version, const std::function<void(const Document &)> &take) {
    return Load(name, version, [&](const Document &content, uint32_t) { take(content); });
}

void Store::Save(const std::string &name, uint32_t version, const Document &content) {
    const std::string file = FileOf(name);
    const MutexLock lock(mutex_);
    if (!directory_) {
        documents_[name] = {version, content};
        return;
    }
    const std::string what = (path_ / file).string();
    try {
        const Document whole = Document::Object{
            {"document", name}, {"version", version}, {"sha256", DigestOf(content)}, {"content", content}};
        const std::string text = whole.Dump(1) + "\n";
        CheckSize(text.size());
        FileAside aside(directory_, file, 0600);
        WriteAll(aside.File(), text, what);
        aside.Commit();
    } catch (const DocumentError &error) {
        Fail(EILSEQ, fmt::format("{}: {}", what, error.what()));
    }
}

std::optional<Store::Kept> Store::Read(const std::string &name, uint32_t version) {
    const std::string file = FileOf(name);
    if (!directory_) {
        const auto found = documents_.find(name);
        return found == documents_.end() ? std::nullopt : std::optional(found->second);
    }
    const int fd = openat(directory_.Fd(), file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT) {
        return {};
    }
    const Document whole = Document::Parse(TextOf({fd, file}, file));
    Kept document{whole.Get<uint32_t>("version"), whole.At("content")};
    if (const auto is = whole.Get<std::string>("document"); is != name) {
        throw std::runtime_error(fmt::format("it says that it is \"{}\"", is));
    }
    if (whole.Get<std::string>("sha256") != DigestOf(document.content)) {
        throw std::runtime_error("its content does not match its digest");
    }
    if (document.version > version) {
        SetAside(name, ".newer", fmt::format("it has version {}, expected at most {}", document.version, version));
        return {};
    }
    return document;
}

void Store::SetAside(const std::string &name, const char *suffix, const std::string &reason) {
    const std::string file = FileOf(name);
    if (!directory_) {
        documents_.erase(name);
        return;
    }
    Log().error("{}: {}; set aside as {}{}", (path_ / file).string(), reason, file, suffix);
    if (renameat(directory_.Fd(), file.c_str(), directory_.Fd(), (file + suffix).c_str()) != 0) {
        Log().error("{}: can't be set aside: {}", (path_ / file).string(), std::generic_category().message(errno));
    }
}

} // namespace host
