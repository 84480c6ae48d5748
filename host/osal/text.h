// Text of others: what is one, and what may be shown of it.
#pragma once

#include <string>
#include <string_view>

namespace host {

// Whether bytes are UTF-8 without control characters other than tab and line ends.
bool IsText(std::string_view bytes);

// What may go into a line on a terminal, whoever wrote it: a blank for a tab or a line end, '?' for each other byte of
// what is no text.
std::string LineOfText(std::string_view bytes);

} // namespace host
