#include "host/core/pattern.h"

namespace core {

namespace {

std::string Expanded(const std::string &word, const Crash &crash) {
    std::string text;
    for (size_t i = 0; i < word.size(); ++i) {
        if (word[i] != '%') {
            text += word[i];
        } else if (++i < word.size()) {
            text += word[i] == '%' ? "%" : crash.Text(word[i]);
        }
    }
    return text;
}

// Whether a pattern has a specifier, rather than a doubled percent sign before a letter.
bool Has(const std::string &pattern, char specifier) {
    for (size_t i = 0; i + 1 < pattern.size(); ++i) {
        if (pattern[i] == '%' && pattern[++i] == specifier) {
            return true;
        }
    }
    return false;
}

} // namespace

Destination Expand(const std::string &pattern, bool withPid, const Crash &crash) {
    Destination destination;
    if (!pattern.starts_with('|')) {
        destination.file = Expanded(pattern, crash);
        if (withPid && !destination.file.empty() && !Has(pattern, 'p')) {
            destination.file += "." + crash.Text('p');
        }
        return destination;
    }
    // Words end at blanks before they are expanded: what a process calls itself adds none.
    for (size_t at = pattern.find_first_not_of(' ', 1); at != pattern.npos;) {
        const size_t end = std::min(pattern.find(' ', at), pattern.size());
        destination.program.push_back(Expanded(pattern.substr(at, end - at), crash));
        at = pattern.find_first_not_of(' ', end);
    }
    return destination;
}

} // namespace core
