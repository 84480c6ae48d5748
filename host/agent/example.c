/* tarn-agent: an application with a diagnosis agent in it. It counts, and a debug command tells how far it is. */
#define _GNU_SOURCE

#include <errno.h>
#include <getopt.h>
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "host/agent/tarn_agent.h"

static atomic_uint_fast64_t counter;
static atomic_bool stop;

static void *Count(void *argument) {
    const struct timespec pause = {0, 1000000};
    (void)argument;
    while (!stop) {
        counter++;
        nanosleep(&pause, NULL);
    }
    return NULL;
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

static int Usage(FILE *file) {
    fprintf(file, "usage: tarn-agent [--name NAME] [--run-dir DIR]\n"
                  "  --name NAME     what the agent is called [example]\n"
                  "  --run-dir DIR   directory of the sockets [$TARN_RUN_DIR, or /run/tarn]\n");
    return file == stdout ? 0 : 2;
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
    const uint32_t error = TarnAgent_Init(name, runDir);
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
                                            {NULL, 0, NULL, 0}};
    const char *name = "example";
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
            return Usage(stdout);
        default:
            return Usage(stderr);
        }
    }
    return optind == argc ? Serve(name, runDir) : Usage(stderr);
}
