// tarn-unwind: what the daemon looks into other processes with. The daemon executes it, nobody else.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "host/unwind/helper.h"
#include "host/unwind/starter.h"

int main(int argc, char **argv) {
    const auto is = [&](const char *job, int count) { return argc == count && strcmp(argv[1], job) == 0; };
    try {
        if (is("--starter", 2)) {
            return host::unwind::RunStarter();
        }
        if (is("--unwind", 4)) {
            return host::unwind::RunUnwinder(static_cast<uint32_t>(strtoul(argv[2], nullptr, 10)),
                                             strtoull(argv[3], nullptr, 10));
        }
        if (is("--demangle", 4)) {
            return host::unwind::RunDemangler();
        }
    } catch (const std::exception &error) {
        fprintf(stderr, "tarn-unwind: %s\n", error.what());
        return 1;
    }
    fprintf(stderr, "tarn-unwind: expected to be started by tarnd\n");
    return 2;
}
