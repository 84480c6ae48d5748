// The lists of names that the C preprocessor makes of the method lists.
#pragma once

#include <cctype>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>

inline bool IsNamePart(char c) {
    return isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

// The identifiers in a file; of a version script, those that it exports.
inline std::set<std::string> ReadNames(const char *path) {
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error(std::string("cannot read the list of names ") + path);
    }
    std::string text{std::istreambuf_iterator<char>(file), {}};
    const size_t global = text.find("global:");
    if (global != std::string::npos) {
        const size_t begin = global + sizeof "global:" - 1;
        text = text.substr(begin, text.find("local:") - begin);
    }
    std::set<std::string> names;
    std::string name;
    for (const char c : text + " ") {
        if (IsNamePart(c)) {
            name += c;
        } else if (!name.empty()) {
            names.insert(name);
            name.clear();
        }
    }
    return names;
}
