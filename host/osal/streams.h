// Standard input, output and error.
#pragma once

#include <filesystem>

namespace host {

// Takes the descriptors of those that are closed, which would otherwise go to the next files and sockets: what is meant
// for the user would be written into them. Reading and writing still fail. To be called before anything is opened.
void OccupyClosedStreams();

// Lets standard error go on at the end of a file, which is made where there is none. Throws std::system_error.
void AppendErrorsTo(const std::filesystem::path &file);

} // namespace host
