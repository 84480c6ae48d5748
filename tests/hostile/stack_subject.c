/* "stack_subject LIBRARY" waits for good in the library's function Enter. */
#include <dlfcn.h>
#include <stdio.h>

int main(int argc, char **argv) {
    void *const library = argc == 2 ? dlopen(argv[1], RTLD_NOW) : NULL;
    void (*const enter)(void) = library == NULL ? NULL : (void (*)(void))dlsym(library, "Enter");
    if (enter == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    puts("ready");
    fflush(stdout);
    enter();
    return 0;
}
