// Rows of the daemon's reports, which are text.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ctl {

std::vector<std::string> WordsOf(const std::string &line);

// The words from one on, joined again; all but so many at the end.
std::string Joined(const std::vector<std::string> &words, size_t first, size_t leftOut);

// 0 for what is no number.
uint64_t NumberOf(const std::string &word);

// A process that grows: by how much in which time, and how far the straight line through it may be off.
struct LeakRow {
    uint64_t process, residentBytes, grownBytes, bytesPerMinute, errorBytesPerMinute, overSeconds;
    std::string name;
};
std::optional<LeakRow> LeakRowOf(const std::string &line);

} // namespace ctl
