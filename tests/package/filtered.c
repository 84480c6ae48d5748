/* filtered FILE PROGRAM...: runs a program that is refused all system calls but those that the file names, one a line. */
#include <errno.h>
#include <seccomp.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static int Fail(const char *what) {
    fprintf(stderr, "filtered: %s: %s\n", what, strerror(errno));
    return 1;
}

int main(int argc, char **argv) {
    FILE *file = argc > 2 ? fopen(argv[1], "r") : NULL;
    scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ERRNO(EPERM));
    char name[64];
    if (file == NULL || filter == NULL) {
        return Fail("expected a file of system calls, and a program");
    }
    while (fscanf(file, "%63s", name) == 1) {
        const int call = seccomp_syscall_resolve_name(name);
        if (call >= 0 && seccomp_rule_add(filter, SCMP_ACT_ALLOW, call, 0) != 0) {
            return Fail(name);
        }
    }
    fclose(file);
    if (seccomp_load(filter) != 0) {
        return Fail("the filter");
    }
    execv(argv[2], argv + 2);
    return Fail(argv[2]);
}
