#include "host/osal/streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <initializer_list>

namespace host {

void OccupyClosedStreams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(stream, F_GETFD) < 0) {
            open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY); // the lowest free one is this
        }
    }
}

} // namespace host
