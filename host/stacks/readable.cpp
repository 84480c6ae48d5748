#include "host/stacks/readable.h"

#include <algorithm>

namespace host::stacks {

namespace {

bool IsOfName(char letter) {
    return (letter >= '0' && letter <= '9') || (letter >= 'A' && letter <= 'Z') || (letter >= 'a' && letter <= 'z') ||
           letter == '_' || letter == '.' || letter == '$';
}

} // namespace

std::string WithReadableNames(std::string_view text, Demangler &names) {
    std::string readable;
    for (size_t at = 0; at < text.size();) {
        const bool isName = IsOfName(text[at]);
        const auto end = std::find_if(text.begin() + static_cast<ptrdiff_t>(at), text.end(),
                                      [=](char letter) { return IsOfName(letter) != isName; });
        const std::string part(text.begin() + static_cast<ptrdiff_t>(at), end);
        readable += isName && part.starts_with("_Z") ? names.Readable(part) : part;
        at += part.size();
    }
    return readable;
}

} // namespace host::stacks
