// What has room in a text of limited size.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

#include <fmt/format.h>

namespace tarnd {

// A text's parts, which "; " separates, as far as they have room within so many bytes, and how many have not:
// "first; second; 3 more are not told".
inline std::string WithinRoom(std::string_view text, size_t mostBytes) {
    constexpr std::string_view kBetween = "; ";
    if (text.size() <= mostBytes) {
        return std::string(text);
    }
    const auto partsFrom = [&](size_t at) {
        size_t parts = 1;
        for (; (at = text.find(kBetween, at)) != text.npos; at += kBetween.size()) {
            ++parts;
        }
        return parts;
    };
    const auto restFrom = [&](size_t at) { return fmt::format("{} more are not told", partsFrom(at)); };
    size_t end = 0; // behind the parts that are told
    for (size_t at = 0; (at = text.find(kBetween, at)) != text.npos;) {
        at += kBetween.size();
        end = at + restFrom(at).size() <= mostBytes ? at : end;
    }
    return std::string(text.substr(0, end)) + restFrom(end);
}

} // namespace tarnd
