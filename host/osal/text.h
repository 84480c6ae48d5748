// Text of others: what is one, what may be shown of it, and the arrays that records carry it in.
#pragma once

#include <cstring>
#include <string>
#include <string_view>

namespace host {

// Whether bytes are UTF-8 without control characters other than tab and line ends.
bool IsText(std::string_view bytes);

// What may go into a line on a terminal, whoever wrote it: a blank for a tab or a line end, '?' for each other byte of
// what is no text.
std::string LineOfText(std::string_view bytes);

// The text in an array that need not be terminated.
template <size_t kSize>
std::string_view TextOf(const char (&array)[kSize]) {
    return {array, strnlen(array, kSize)};
}

// Copies a text into an array, cut to leave room for a terminating 0.
template <size_t kSize>
void CopyText(char (&to)[kSize], std::string_view text) {
    const size_t length = text.copy(to, kSize - 1);
    memset(to + length, 0, kSize - length);
}

// The same, where a text may fill the array: then it has no terminating 0.
template <size_t kSize>
void FillText(char (&to)[kSize], std::string_view text) {
    const size_t length = text.copy(to, kSize);
    memset(to + length, 0, kSize - length);
}

} // namespace host
