/*
 * The diagnosis agent inside an application: one call starts it, and from then on the daemon can run the process's
 * debug commands. The agent works on threads of its own, which take no signals; no function here waits for the daemon,
 * nor does the application wait for a command.
 *
 * The service TarnSysdiagAgent on the socket agent-<pid>.sock of the run directory:
 *
 *   DBGCmdExecShow        Takes a command line: words, separated by blanks. Commands run one after the other.
 *   DBGCmdExecResultGet   What became of the last one taken. uiValue is its number, counted from 1, and szText its
 *                         output. uiResult is 0, or an errno value:
 *                           2 ENOENT         no such command
 *                           16 EBUSY         too many commands were waiting: it was not taken
 *                           22 EINVAL        no command in the line
 *                           61 ENODATA       no command was taken since the start, or since DBGCmdExecClean
 *                           115 EINPROGRESS  it waits or runs
 *                         or what the command itself returned.
 *   DBGCmdExecClean       Forgets the commands that wait and the last result. A running command's output is dropped.
 *
 * All other methods of the service answer 38 ENOSYS.
 */
#ifndef TARN_HOST_AGENT_TARN_AGENT_H
#define TARN_HOST_AGENT_TARN_AGENT_H

#include <stdint.h>

#include "platform/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The most that a command can write; what is more is cut off, and the text says so. */
#define TARN_AGENT_OUTPUT_MAX 65536

/* Where a command writes. */
typedef struct TarnAgentOutput TarnAgentOutput;

/* Appends text; format and arguments are printf's. */
TARN_EXPORT void TarnAgent_Print(TarnAgentOutput *pstOutput, const char *pcFormat, ...)
    __attribute__((format(printf, 2, 3)));

/*
 * A debug command. ppcArgv[0] is its name and ppcArgv[iArgc] null. It runs on the agent's thread; what it shares with
 * the application it must lock. Returns 0 or an errno value.
 */
typedef uint32_t (*TarnAgentCommand)(int iArgc, const char *const *ppcArgv, TarnAgentOutput *pstOutput,
                                     void *pUserData);

/*
 * Starts the agent under a name of 1 to 31 bytes. pcRunDir is the directory of the sockets; null: $TARN_RUN_DIR, or the
 * system's. Returns 0; 22 for a bad name; 114 (EALREADY) when the agent runs; else the system's errno value. A daemon
 * that is not there yet is no error: the agent registers as soon as it is.
 */
TARN_EXPORT uint32_t TarnAgent_Init(const char *pcName, const char *pcRunDir);

/* Adds a command, before TarnAgent_Init or after. 0; 22 for a null function, or a name that is empty or has blanks; 17
 * (EEXIST) for a name that is taken. The texts are copied. Commands stay when the agent is shut down. */
TARN_EXPORT uint32_t TarnAgent_RegisterCommand(const char *pcName, const char *pcHelp, TarnAgentCommand pfnCommand,
                                               void *pUserData);

/*
 * Tells the daemon that the agent leaves, and stops it. Waits for a command that runs: not to be called from one. 0, or
 * 22 when no agent runs.
 */
TARN_EXPORT uint32_t TarnAgent_Shutdown(void);

#ifdef __cplusplus
}
#endif

#endif
