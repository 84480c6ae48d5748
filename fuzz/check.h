// A finding stops the process, so that libFuzzer and the replay both see it, and says what was violated.
#pragma once

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition, ...)                                                                                     \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            fprintf(stderr, "%s:%d: violated: %s: ", __FILE__, __LINE__, #condition);                                  \
            fprintf(stderr, __VA_ARGS__);                                                                              \
            fprintf(stderr, "\n");                                                                                     \
            abort();                                                                                                   \
        }                                                                                                              \
    } while (false)
