// A process whose memory is to be looked at. Each argument is a piece of memory that it takes, fills and keeps:
//
//   anon:KIB        of its own
//   file:PATH:KIB   a file, mapped shared
//   posix:NAME:KIB  named shared memory
//   sysv:KEY:KIB    a System V segment; 1 KEY per process
//   closed          two pages, of which the second may not be read
//   pieces:NUMBER   one page each, which the kernel can't merge into one mapping
//   name:TEXT       not memory: what it calls itself
//   end             not memory: it ends at once
//
// It prints "<argument> <address or id>" for each and then "ready", and runs until it is killed. On SIGTERM it removes
// what it has named, and ends.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

[[noreturn]] void Fail(const std::string &what) {
    perror(what.c_str());
    exit(1);
}

void *Fill(void *memory, size_t bytes, const std::string &what) {
    if (memory == MAP_FAILED) {
        Fail(what);
    }
    memset(memory, 0x5A, bytes);
    return memory;
}

void *Anonymous(size_t bytes) {
    return Fill(mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0), bytes, "anon");
}

void *Shared(int fd, size_t bytes, const std::string &what) {
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
        Fail(what);
    }
    return Fill(mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0), bytes, what);
}

class Subject {
public:
    void Take(const std::string &argument) {
        const size_t first = argument.find(':');
        const size_t last = argument.rfind(':');
        const std::string kind = argument.substr(0, first);
        const std::string name = first < last ? argument.substr(first + 1, last - first - 1) : "";
        const size_t bytes = strtoul(argument.c_str() + last + 1, nullptr, 10) * 1024;
        if (kind == "anon") {
            Introduce(argument, Anonymous(bytes));
        } else if (kind == "file") {
            Introduce(argument, Shared(open(name.c_str(), O_RDWR | O_CREAT, 0600), bytes, name));
        } else if (kind == "posix") {
            shared_.push_back(name);
            Introduce(argument, Shared(shm_open(name.c_str(), O_RDWR | O_CREAT, 0640), bytes, name));
        } else if (kind == "sysv") {
            segment_ = shmget(static_cast<key_t>(strtoul(name.c_str(), nullptr, 10)), bytes, IPC_CREAT | 0640);
            void *const memory = shmat(segment_, nullptr, 0);
            if (memory == reinterpret_cast<void *>(-1)) {
                Fail(argument);
            }
            memset(memory, 0x5A, bytes);
            printf("%s %d\n", argument.c_str(), segment_);
        } else if (kind == "closed") {
            const auto page = static_cast<size_t>(getpagesize());
            auto *const memory = static_cast<char *>(Anonymous(2 * page));
            mprotect(memory + page, page, PROT_NONE);
            Introduce(argument, memory);
        } else if (kind == "pieces") {
            TakePieces(bytes / 1024);
        } else if (kind == "end") {
            End();
        } else if (kind == "name") {
            prctl(PR_SET_NAME, argument.c_str() + first + 1);
        }
    }

    [[noreturn]] void Run() {
        sigset_t ends;
        sigemptyset(&ends);
        sigaddset(&ends, SIGTERM);
        sigprocmask(SIG_BLOCK, &ends, nullptr);
        printf("ready\n");
        fflush(stdout);
        while (sigwaitinfo(&ends, nullptr) != SIGTERM) {
        }
        End();
    }

private:
    static void TakePieces(size_t number) {
        const auto page = static_cast<size_t>(getpagesize());
        void *const all = mmap(nullptr, number * page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        for (size_t i = 1; all != MAP_FAILED && i < number; i += 2) {
            mprotect(static_cast<char *>(all) + i * page, page, PROT_READ | PROT_WRITE);
        }
    }

    static void Introduce(const std::string &argument, const void *memory) {
        printf("%s %p\n", argument.c_str(), memory);
    }

    [[noreturn]] void End() {
        for (const std::string &name : shared_) {
            shm_unlink(name.c_str());
        }
        if (segment_ >= 0) {
            shmctl(segment_, IPC_RMID, nullptr);
        }
        _exit(0);
    }

    int segment_ = -1;
    std::vector<std::string> shared_;
};

} // namespace

int main(int argc, char **argv) {
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY); // where the kernel restricts who may look into a process
    Subject subject;
    for (int i = 1; i < argc; ++i) {
        subject.Take(argv[i]);
    }
    subject.Run();
}
