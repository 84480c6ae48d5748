// Why the last call to the runtime's C functions on this thread failed, for TarnHost_LastError.
#pragma once

#include <string>

namespace host {

void KeepLastError(std::string text);

} // namespace host
