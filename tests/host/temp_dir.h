// A directory that is removed at the end, and what is in its files.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

namespace kit {

class TempDir {
public:
    TempDir() {
        std::string name = (std::filesystem::temp_directory_path() / "tarn-test-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), name);
        }
        path_ = name;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::filesystem::path &Path() const { return path_; }

private:
    std::filesystem::path path_;
};

inline std::string TextOfFile(const std::filesystem::path &path) {
    std::ostringstream text; // what can't be read on, such as of a process that has ended, ends it
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

} // namespace kit
