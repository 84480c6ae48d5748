#include "host/osal/streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <initializer_list>

#include "host/osal/descriptor.h"

namespace host {

void OccupyClosedStreams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(stream, F_GETFD) < 0) {
            open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY); // the lowest free one is this
        }
    }
}

void AppendErrorsTo(const std::filesystem::path &file) {
    const std::string what = "log file " + file.string();
    const Descriptor log(open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640), what);
    if (dup2(log.Fd(), STDERR_FILENO) < 0) {
        Fail(errno, what);
    }
}

} // namespace host
