#include "host/ctl/archive.h"

#include <archive.h>
#include <archive_entry.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <sstream>

#include "host/ctl/commands.h"

namespace ctl {

namespace {

constexpr char kDirectory[] = "tarn/"; // in the archive

[[noreturn]] void Fail(const std::string &file, const char *what, archive *archive) {
    const char *const text = archive_error_string(archive);
    throw Failure(kOther, fmt::format("{}: cannot {}: {}", file, what, text == nullptr ? "unknown" : text));
}

// Empty where the archive has no such file.
std::string ReadFrom(const std::string &file, const std::string &name) {
    const std::unique_ptr<archive, int (*)(archive *)> in{archive_read_new(), archive_read_free};
    archive_read_support_filter_gzip(in.get());
    archive_read_support_format_tar(in.get());
    constexpr size_t kBlock = 16384;
    int result = archive_read_open_filename(in.get(), file.c_str(), kBlock);
    for (archive_entry *entry = nullptr;
         result >= ARCHIVE_WARN && (result = archive_read_next_header(in.get(), &entry)) >= ARCHIVE_WARN;) {
        if (result == ARCHIVE_EOF) {
            return "";
        }
        if (archive_entry_pathname(entry) == kDirectory + name) {
            std::string content(static_cast<size_t>(archive_entry_size(entry)), '\0');
            if (archive_read_data(in.get(), content.data(), content.size()) ==
                static_cast<la_ssize_t>(content.size())) {
                return content;
            }
            break;
        }
    }
    Fail(file, "read", in.get());
}

} // namespace

Archive::Archive(const std::string &file)
    : file_(file), partial_(file + ".part"), archive_{archive_write_new(), archive_write_free} {
    archive_write_add_filter_gzip(archive_.get());
    archive_write_set_format_pax_restricted(archive_.get());
    Require(file == "-" ? archive_write_open_fd(archive_.get(), STDOUT_FILENO)
                        : archive_write_open_filename(archive_.get(), partial_.c_str()));
}

Archive::~Archive() {
    if (!complete_ && file_ != "-") {
        archive_write_close(archive_.get());
        unlink(partial_.c_str());
    }
}

void Archive::Add(const std::string &name, std::string_view content) {
    const std::unique_ptr<archive_entry, void (*)(archive_entry *)> entry(archive_entry_new(), archive_entry_free);
    archive_entry_set_pathname(entry.get(), (kDirectory + name).c_str());
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), 0600);
    archive_entry_set_mtime(entry.get(), time(nullptr), 0);
    archive_entry_set_size(entry.get(), static_cast<la_int64_t>(content.size()));
    Require(archive_write_header(archive_.get(), entry.get()));
    if (archive_write_data(archive_.get(), content.data(), content.size()) < 0) {
        Require(ARCHIVE_FATAL);
    }
}

void Archive::Finish() {
    Require(archive_write_close(archive_.get()));
    if (file_ != "-" && rename(partial_.c_str(), file_.c_str()) != 0) {
        throw Failure(kOther, fmt::format("{}: cannot write: {}", file_, strerror(errno)));
    }
    complete_ = true;
}

void Archive::Require(int result) const {
    if (result < ARCHIVE_WARN) {
        Fail(file_, "write", archive_.get());
    }
}

void PrintArchive(const std::string &file, bool json) {
    if (!json) {
        std::cout << file << "\n";
        return;
    }
    host::describe::Json missing = host::describe::Json::array();
    std::istringstream lines(ReadFrom(file, kMissing));
    for (std::string line; std::getline(lines, line);) {
        missing.push_back(line);
    }
    std::cout << host::describe::Json{{"file", file}, {"missing", missing}}.dump() << "\n";
}

} // namespace ctl
