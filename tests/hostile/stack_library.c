/* A library whose function has the name that it is compiled with. */
#include <unistd.h>

void Enter(void);
void Rest(void) __asm__(NAME_OF_REST);

__attribute__((noinline)) void Rest(void) {
    while (pause() != 0) {
    }
}

void Enter(void) {
    Rest();
    __asm__ volatile(""); /* no tail call */
}
