// The archive that collect makes.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct archive;

namespace ctl {

// A compressed archive that is there only when it is complete; "-" for standard output.
class Archive {
public:
    explicit Archive(const std::string &file);
    ~Archive();
    Archive(const Archive &) = delete;
    Archive &operator=(const Archive &) = delete;

    void Add(const std::string &name, std::string_view content);
    void Finish();

private:
    void Require(int result) const;

    const std::string file_, partial_;
    const std::unique_ptr<archive, int (*)(archive *)> archive_;
    bool complete_ = false;
};

constexpr char kMissing[] = "missing.txt"; // what could not be had, a line each

// Names the archive on standard output; for programs with what is missing in it, {"file": "...", "missing": ["..."]}.
void PrintArchive(const std::string &file, bool json);

} // namespace ctl
