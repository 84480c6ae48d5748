// A process to be looked at. The thread "burner" runs without a break, in BurnCpu; the thread "sleeper" sleeps, in
// SleepForGood, called by 40 times Descend. "host_subject 12" has the threads "burner0" to "burner11" instead of the
// first; "host_subject 1 10" has also "blocked0" to "blocked9", each waiting in a way that can't be interrupted until
// its child, which sleeps, is killed. "host_subject headless" has the first two, but its main thread ends.
// "host_subject fleeting" has one after the other threads that burn for 20 ms and end; it calls its main thread
// "fleeting". It prints a line "<name> <tid>" for each thread, and runs until it is killed.
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

void Introduce(const char *name) {
    pthread_setname_np(pthread_self(), name);
    printf("%s %d\n", name, static_cast<int>(gettid()));
    fflush(stdout);
}

// Not inlined, to be found by their names.
[[gnu::noinline]] void BurnCpu(volatile unsigned &count) {
    for (;;) {
        count = count + 1;
    }
}

[[gnu::noinline]] void SleepForGood() {
    while (pause() != 0) {
    }
}

// A thread waits for its child by vfork as for a device.
void Block() {
    if (vfork() == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;) {
            pause();
        }
    }
    SleepForGood();
}

[[gnu::noinline]] unsigned Descend(unsigned depth) {
    if (depth == 0) {
        SleepForGood();
        return 0;
    }
    return Descend(depth - 1) + static_cast<unsigned>(getpid()); // no tail call
}

[[noreturn]] void RunFleetingThreads() {
    Introduce("fleeting");
    for (;;) {
        std::thread([] {
            const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
            while (std::chrono::steady_clock::now() < end) {
            }
        }).join();
    }
}

} // namespace

int main(int argc, char **argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "fleeting") {
        RunFleetingThreads();
    }
    const int burnerNum = argc > 1 ? atoi(argv[1]) : 0;
    std::vector<std::string> names{"burner"};
    if (burnerNum != 0) {
        names.clear();
        for (int i = 0; i < burnerNum; ++i) {
            names.push_back("burner" + std::to_string(i));
        }
    }
    std::vector<std::thread> threads;
    for (const std::string &name : names) {
        threads.emplace_back([&name] {
            Introduce(name.c_str());
            volatile unsigned count = 0;
            BurnCpu(count);
        });
    }
    for (int i = 0; i < (argc > 2 ? atoi(argv[2]) : 0); ++i) {
        threads.emplace_back([i] {
            Introduce(("blocked" + std::to_string(i)).c_str());
            Block();
        });
    }
    threads.emplace_back([] {
        Introduce("sleeper");
        Descend(40);
    });
    if (mode == "headless") {
        syscall(SYS_exit, 0); // of the thread alone
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}
