/*
 * tarn-agent: an application with a diagnosis agent in it, which uses all that the agent offers. Its thread counts,
 * takes memory for each count from a partition, and asks for each message whether it may send it. Debug commands tell
 * how far it is, and let it go wrong.
 */
#define _GNU_SOURCE

#include <errno.h>
#include <getopt.h>
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "tarn_sysdiag/agent.h"
#include "tarn_sysdiag/values.h"

static atomic_uint_fast64_t counter;
static atomic_bool stop;

static atomic_uint_fast64_t sent, held, heartbeats, warnings;
static uint32_t partition, requests, leaks, texts;

static void SendMessage(void) {
    const TarnAgentMessage message = {.uiType = 1, .pcSender = "counter", .pcReceiver = "display", .pcName = "count"};
    if (TarnAgent_MessagePasses(&message)) {
        sent++;
    } else {
        held++;
    }
}

static void *Count(void *argument) {
    const struct timespec pause = {0, 1000000};
    (void)argument;
    TarnAgent_PrepareThread();
    TarnAgent_WatchThread(3000);
    while (!stop) {
        void *const request = TarnAgent_Alloc(requests, 100);
        TARN_AGENT_CHECK(request != NULL);
        counter++;
        SendMessage();
        TarnAgent_Free(request);
        nanosleep(&pause, NULL);
    }
    return NULL;
}

static void CountHeartbeat(uint32_t timer, void *userData) {
    (void)timer;
    (void)userData;
    heartbeats++;
}

static uint32_t CheckMessages(uint32_t limit, char *text, size_t room, void *userData) {
    (void)userData;
    snprintf(text, room, "%llu messages were held back, limit %u", (unsigned long long)held, limit);
    return held >= limit ? TARN_HEALTH_LEVEL_DEGRADED : TARN_HEALTH_LEVEL_GOOD;
}

static void HoldBack(uint8_t resource, uint8_t level, uint16_t usage, void *userData) {
    (void)resource;
    (void)usage;
    (void)userData;
    warnings += level != 0;
}

static uint32_t ShowCounter(int argc, const char *const *argv, TarnAgentOutput *output, void *userData) {
    (void)argv;
    (void)userData;
    if (argc != 1) {
        TarnAgent_Print(output, "expected: counter\n");
        return EINVAL;
    }
    TarnAgent_Print(output, "counter %llu\n", (unsigned long long)counter);
    return 0;
}

/* What goes wrong on command. Not inlined, so that their names stand in the stacks; and let go wrong by sanitizers. */
#define GOES_WRONG __attribute__((noinline, no_sanitize("undefined")))

GOES_WRONG static void WriteThroughNull(void) {
    volatile int *volatile nowhere = NULL;
    *nowhere = 1;
}

GOES_WRONG static void DivideByZero(void) {
#if defined(__arm__) || defined(__aarch64__)
    raise(SIGFPE); /* ARM's division has a result, or a library's function in which stacks end */
    ++counter;     /* not a tail call */
#else
    volatile int one = 1, zero = 0;
    counter += (uint_fast64_t)(one / zero);
#endif
}

GOES_WRONG static void JumpNowhere(void) {
    void (*volatile nowhere)(void) = (void (*)(void))0x1000;
    nowhere();
    ++counter; /* not a tail call */
}

GOES_WRONG static int Recurse(volatile int depth) {
    volatile char frame[4096];
    frame[0] = (char)depth;
    return depth < 0 ? 0 : Recurse(depth + 1) + frame[0];
}

static uint32_t ShowState(int argc, const char *const *argv, TarnAgentOutput *output, void *userData) {
    (void)argc;
    (void)argv;
    (void)userData;
    TarnAgent_Print(output, "messages sent %llu held %llu\nheartbeats %llu\nwarnings %llu\ncpu level %u\n",
                    (unsigned long long)sent, (unsigned long long)held, (unsigned long long)heartbeats,
                    (unsigned long long)warnings, TarnAgent_ResourceLevel(TARN_RESOURCE_CPU));
    return 0;
}

__attribute__((noinline)) static int LeakBlocks(unsigned long count) {
    for (unsigned long i = 0; i < count; ++i) {
        if (TarnAgent_Alloc(leaks, 200) == NULL) {
            return 0;
        }
    }
    return 1;
}

static uint32_t Leak(int argc, const char *const *argv, TarnAgentOutput *output, void *userData) {
    (void)userData;
    const unsigned long count = argc == 2 ? strtoul(argv[1], NULL, 10) : 0;
    if (count == 0) {
        TarnAgent_Print(output, "expected: leak BLOCKS\n");
        return EINVAL;
    }
    if (!LeakBlocks(count)) {
        TarnAgent_Print(output, "the partition is full\n");
        return ENOMEM;
    }
    return 0;
}

__attribute__((noinline)) static void WriteBehindEnd(volatile char *block, size_t size) {
    block[size] = 1;
}

static uint32_t Damage(int argc, const char *const *argv, TarnAgentOutput *output, void *userData) {
    (void)argc;
    (void)argv;
    (void)userData;
    char *const block = TarnAgent_Alloc(leaks, 100);
    if (block == NULL) {
        return ENOMEM;
    }
    WriteBehindEnd(block, 100);
    TarnAgent_Print(output, "wrote behind %p\n", (void *)block);
    return 0;
}

__attribute__((noinline)) static void *SpinUntil(void *argument) {
    const time_t end = *(const time_t *)argument;
    free(argument);
    for (volatile uint32_t turn = 0; time(NULL) < end; ++turn) {
    }
    return NULL;
}

static uint32_t Loop(int argc, const char *const *argv, TarnAgentOutput *output, void *userData) {
    (void)userData;
    const unsigned long seconds = argc == 2 ? strtoul(argv[1], NULL, 10) : 0;
    time_t *const end = seconds == 0 ? NULL : malloc(sizeof *end);
    pthread_t spinning;
    if (end == NULL) {
        TarnAgent_Print(output, "expected: loop SECONDS\n");
        return EINVAL;
    }
    *end = time(NULL) + (time_t)seconds;
    if (pthread_create(&spinning, NULL, SpinUntil, end) != 0) {
        free(end);
        return EAGAIN;
    }
    pthread_setname_np(spinning, "spinning");
    pthread_detach(spinning);
    return 0;
}

static uint32_t Crash(int argc, const char *const *argv, TarnAgentOutput *output, void *userData) {
    (void)userData;
    const char *const how = argc == 2 ? argv[1] : "";
    if (strcmp(how, "segv") == 0) {
        WriteThroughNull();
    } else if (strcmp(how, "fpe") == 0) {
        DivideByZero();
    } else if (strcmp(how, "abort") == 0) {
        abort();
    } else if (strcmp(how, "jump") == 0) {
        JumpNowhere();
    } else if (strcmp(how, "overflow") == 0) {
        TarnAgent_PrepareThread();
        Recurse(0);
    }
    TarnAgent_Print(output, "expected: crash segv|fpe|abort|jump|overflow\n");
    return EINVAL;
}

static uint32_t Check(int argc, const char *const *argv, TarnAgentOutput *output, void *userData) {
    (void)argv;
    (void)userData;
    const int wordNum = argc;
    if (!TARN_AGENT_CHECK(wordNum == 0)) {
        TarnAgent_Print(output, "recorded\n");
    }
    return 0;
}

static uint32_t Assert(int argc, const char *const *argv, TarnAgentOutput *output, void *userData) {
    (void)argv;
    (void)output;
    (void)userData;
    const int wordNum = argc;
    TARN_AGENT_ASSERT(wordNum == 0);
    return 0;
}

#define DEFAULT_NAME "example"

static int Usage(void) {
    return printf("An application with a diagnosis agent in it, to try the agent with.\n"
                  "Usage: tarn-agent [OPTIONS]\n\n"
                  "Options:\n"
                  "  --help          Print this help message and exit\n"
                  "  --version       Print the version and exit\n"
                  "  --name NAME     What the agent is called [" DEFAULT_NAME "]\n"
                  "  --run-dir DIR   Directory of the sockets [$TARN_RUN_DIR, or /run/tarn]\n") < 0;
}

static int Unexpected(const char *argument) {
    if (argument != NULL) {
        fprintf(stderr, "tarn-agent: found %s, expected an option\n", argument);
    }
    fprintf(stderr, "tarn-agent: tarn-agent --help says more\n");
    return 2;
}

static int RegisterAll(void) {
    static char title[] = "an application that counts";
    uint32_t accounted = 0, timer = 0;
    return TarnAgent_CreatePartition("buffers", 1 << 20, 64, &partition) == 0 &&
           TarnAgent_OpenMemHandle(partition, "requests", &requests) == 0 &&
           TarnAgent_OpenMemHandle(partition, "leaks", &leaks) == 0 &&
           TarnAgent_CreatePartition("static", 0, 0, &accounted) == 0 &&
           TarnAgent_OpenMemHandle(accounted, "texts", &texts) == 0 &&
           TarnAgent_AccountAlloc(texts, title, sizeof title) == 0 &&
           TarnAgent_CreateTimer("heartbeat", 100, 1, CountHeartbeat, NULL, &timer) == 0 &&
           TarnAgent_StartTimer(timer) == 0 && TarnAgent_AddHealthItem(64, "messages", 100, CheckMessages, NULL) == 0 &&
           TarnAgent_Subscribe("counter", TARN_EVENT_CPU | TARN_EVENT_MEMORY, HoldBack, NULL) == 0;
}

static int Serve(const char *name, const char *runDir) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, NULL);

    pthread_t counting;
    int received = 0;
    TarnAgent_RegisterCommand("counter", "how far the application has counted", ShowCounter, NULL);
    TarnAgent_RegisterCommand("crash", "segv|fpe|abort|jump|overflow: ends the application", Crash, NULL);
    TarnAgent_RegisterCommand("check", "records a check that fails", Check, NULL);
    TarnAgent_RegisterCommand("assert", "records an assertion that fails, and aborts", Assert, NULL);
    TarnAgent_RegisterCommand("state", "messages, heartbeats, warnings", ShowState, NULL);
    TarnAgent_RegisterCommand("leak", "BLOCKS: allocates and forgets", Leak, NULL);
    TarnAgent_RegisterCommand("damage", "writes behind the end of a block", Damage, NULL);
    TarnAgent_RegisterCommand("loop", "SECONDS: a thread runs without a break", Loop, NULL);
    if (!RegisterAll()) {
        fprintf(stderr, "tarn-agent: no memory\n");
        return 1;
    }
    const uint32_t error = TarnAgent_Init(name, runDir);
    if (error == EINVAL) {
        fprintf(stderr, "tarn-agent: --name: found \"%s\", expected a name of 1 to 31 bytes\n", name);
        return 2;
    }
    if (error != 0) {
        fprintf(stderr, "tarn-agent: the agent does not start: %s\n", strerror((int)error));
        return 1;
    }
    if (pthread_create(&counting, NULL, Count, NULL) != 0) {
        fprintf(stderr, "tarn-agent: no thread to count in\n");
        return 1;
    }
    pthread_setname_np(counting, "counting");
    sigwait(&signals, &received);
    stop = 1;
    pthread_join(counting, NULL);
    TarnAgent_Shutdown();
    return 0;
}

int main(int argc, char **argv) {
    static const struct option options[] = {{"name", required_argument, NULL, 'n'},
                                            {"run-dir", required_argument, NULL, 'r'},
                                            {"help", no_argument, NULL, 'h'},
                                            {"version", no_argument, NULL, 'v'},
                                            {NULL, 0, NULL, 0}};
    const char *name = DEFAULT_NAME;
    const char *runDir = NULL;
    for (int option; (option = getopt_long(argc, argv, "", options, NULL)) != -1;) {
        switch (option) {
        case 'n':
            name = optarg;
            break;
        case 'r':
            runDir = optarg;
            break;
        case 'h':
            return Usage();
        case 'v':
            return puts("tarn-agent " TARN_VERSION) < 0;
        default:
            return Unexpected(NULL); // getopt_long has said what it found
        }
    }
    return optind == argc ? Serve(name, runDir) : Unexpected(argv[optind]);
}
