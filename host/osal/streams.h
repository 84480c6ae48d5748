// Standard input, output and error.
#pragma once

namespace host {

// Takes the descriptors of those that are closed, which would otherwise go to the next files and sockets: what is meant
// for the user would be written into them. Reading and writing still fail. To be called before anything is opened.
void OccupyClosedStreams();

} // namespace host
