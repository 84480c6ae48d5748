// A file of settings: lines of "key = value"; '#' begins a comment.
#pragma once

#include <cstdint>
#include <filesystem>
#include <istream>
#include <map>
#include <string>
#include <vector>

#include "host/fleet/nats.h"

namespace fleet {

class SettingsFile {
public:
    // Throws std::runtime_error with "file:line: what is wrong, expected what", as all of it.
    static SettingsFile Load(const std::filesystem::path &file);
    SettingsFile(std::istream &text, std::string name);

    // Taken out, each at most once; `otherwise` where the file does not say it.
    std::string Take(const std::string &key, const std::string &otherwise = "");
    uint64_t TakeNumber(const std::string &key, uint64_t least, uint64_t most, uint64_t otherwise);
    Account TakeAccount();

    // What is left is known to nobody.
    void ExpectNothingElse() const;

    // For a value that was taken.
    [[noreturn]] void Refuse(const std::string &key, const std::string &what) const;

private:
    struct Value {
        uint32_t line;
        std::string text;
    };
    const std::string name_;
    std::map<std::string, Value> values_;
    std::map<std::string, uint32_t> taken_; // where they stood
    std::vector<std::string> known_;
};

} // namespace fleet
