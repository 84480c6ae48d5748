// Runs each operation between marks for the counting plugin: first over the pool once, so that all is bound and in
// place, then over it twice, then once. The difference of the last two is one pass without what surrounds it.
//
// bench_instructions --rows prints the rows' names, pool sizes and nothing else, in the order of the marks.
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "bench/mark.h"
#include "bench/operation.h"

namespace {
void Mark(unsigned number) {
    syscall(BENCH_MARK, number);
}
} // namespace

int main(int argc, char **argv) {
    const bool onlyRows = argc == 2 && strcmp(argv[1], "--rows") == 0;
    if (argc != 1 && !onlyRows) {
        fprintf(stderr, "usage: %s [--rows]\n", argv[0]);
        return 2;
    }
    unsigned row = 0;
    for (const bench::MessageSpec &spec : bench::kMessages) {
        const bench::Message message = bench::MakeMessage(spec);
        bench::Operations operations;
        AddVelto(message, operations);
        AddFloor(message, operations);
        AddNanopb(message, operations);
        for (const bench::Operation &operation : operations) {
            ++row;
            if (onlyRows) {
                printf("%u %s/%s/%s %u\n", row, operation.system.c_str(), operation.message.c_str(),
                       operation.name.c_str(), spec.poolSize);
                continue;
            }
            operation.run(spec.poolSize);
            Mark(0);
            operation.run(size_t{2} * spec.poolSize);
            Mark(row);
            operation.run(spec.poolSize);
            Mark(row);
        }
    }
}
