#include "host/ctl/tasks/rows.h"

#include <charconv>
#include <sstream>

namespace ctl {

std::vector<std::string> WordsOf(const std::string &line) {
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string word; in >> word;) {
        words.push_back(word);
    }
    return words;
}

std::string Joined(const std::vector<std::string> &words, size_t first, size_t leftOut) {
    std::string text;
    for (size_t i = first; i + leftOut < words.size(); ++i) {
        text += (i == first ? "" : " ") + words[i];
    }
    return text;
}

uint64_t NumberOf(const std::string &word) {
    uint64_t number = 0;
    std::from_chars(word.data(), word.data() + word.size(), number);
    return number;
}

std::optional<LeakRow> LeakRowOf(const std::string &line) {
    constexpr size_t kNumbers = 5; // behind the name, which may have blanks
    const std::vector<std::string> words = WordsOf(line);
    if (words.size() < 2 + kNumbers) {
        return std::nullopt;
    }
    const auto number = [&](size_t fromEnd) { return NumberOf(words[words.size() - fromEnd]); };
    constexpr uint64_t kKib = 1024;
    return LeakRow{.process = NumberOf(words[0]),
                   .residentBytes = number(5) * kKib,
                   .grownBytes = number(4) * kKib,
                   .bytesPerMinute = number(3) * kKib,
                   .errorBytesPerMinute = number(2) * kKib,
                   .overSeconds = number(1),
                   .name = Joined(words, 1, kNumbers)};
}

} // namespace ctl
