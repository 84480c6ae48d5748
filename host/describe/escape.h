// Bytes of others as JSON text that loses none of them.
#pragma once

#include <string>
#include <string_view>

namespace host::describe {

// Text whatever the bytes: each that is no UTF-8, or a control character, as \xNN, and a backslash in front of an x,
// too.
std::string Escaped(std::string_view bytes);

// The bytes again.
std::string Unescaped(std::string_view text);

} // namespace host::describe
