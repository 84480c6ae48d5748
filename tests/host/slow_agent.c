/* slow_agent RUN_DIR: an application with an agent, "slow", whose command "wait" never ends. */
#include <unistd.h>

#include "tarn_sysdiag/agent.h"

static uint32_t Wait(int argc, const char *const *argv, TarnAgentOutput *output, void *userData) {
    (void)argc;
    (void)argv;
    (void)output;
    (void)userData;
    while (pause() < 0) { // always
    }
    return 0;
}

int main(int argc, char **argv) {
    TarnAgent_RegisterCommand("wait", "never ends", Wait, NULL);
    if (argc != 2 || TarnAgent_Init("slow", argv[1]) != 0) {
        return 1;
    }
    while (pause() < 0) { // until it is ended
    }
    return 0;
}
