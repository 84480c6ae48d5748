/* A program of which only main and a label have names, and that waits in a function without one. */
#include <unistd.h>

__asm__(".text\n.globl label_without_size\nlabel_without_size:\n");

static void __attribute__((noinline)) WaitForGood(void) {
    while (pause() < 0) { /* always */
    }
}

int main(void) {
    WaitForGood();
    return 0;
}
