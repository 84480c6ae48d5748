// A process to be looked at: the thread "burner" runs without a break, the thread "sleeper" sleeps. It prints a line
// "<name> <tid>" for each, and runs until it is killed.
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <thread>

namespace {

void Introduce(const char *name) {
    pthread_setname_np(pthread_self(), name);
    printf("%s %d\n", name, static_cast<int>(gettid()));
    fflush(stdout);
}

} // namespace

int main() {
    std::thread burner([] {
        Introduce("burner");
        for (std::atomic<unsigned> count = 0;; ++count) {
        }
    });
    std::thread sleeper([] {
        Introduce("sleeper");
        for (;;) {
            pause();
        }
    });
    burner.join();
    sleeper.join();
}
