#include "host/unwind/demangle.h"

#define HAVE_DECL_BASENAME 1 // the C library's
#include <libiberty/demangle.h>
#include <sys/time.h>

#include <algorithm>
#include <csetjmp>
#include <csignal>
#include <cstring>

#include "host/unwind/protocol.h"

namespace host::unwind {

namespace {

constexpr size_t kLongest = 4096; // the demangler takes some hundred times as much stack
constexpr suseconds_t kMostMicroseconds = 20'000;

// A demangling is left in the middle when there is enough of it, or its time is up. It holds nothing then: this
// demangler works on the stack alone.
struct Output {
    char text[kMostNameBytes];
    size_t bytes;
    sigjmp_buf end;
};

Output output;

void TakePart(const char *part, size_t bytes, void *) {
    const size_t taken = std::min(bytes, sizeof output.text - output.bytes);
    memcpy(output.text + output.bytes, part, taken);
    output.bytes += taken;
    if (taken < bytes) {
        siglongjmp(output.end, 1);
    }
}

void RunOut(int) {
    output.bytes = 0;
    siglongjmp(output.end, 1);
}

void SetTimer(suseconds_t microseconds) {
    const itimerval timer{{}, {0, microseconds}};
    setitimer(ITIMER_PROF, &timer, nullptr);
}

} // namespace

std::string Demangle(const std::string &name) {
    if (!name.starts_with("_Z") || name.size() > kLongest) {
        return "";
    }
    signal(SIGPROF, RunOut);
    output.bytes = 0;
    if (sigsetjmp(output.end, 1) == 0) {
        SetTimer(kMostMicroseconds);
        if (cplus_demangle_v3_callback(name.c_str(), DMGL_PARAMS | DMGL_ANSI, TakePart, nullptr) == 0) {
            output.bytes = 0;
        }
    }
    SetTimer(0);
    return {output.text, output.bytes};
}

} // namespace host::unwind
