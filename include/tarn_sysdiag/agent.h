/*
 * The diagnosis agent inside an application: one call starts it, and from then on the daemon can run the process's
 * debug commands, ask for what the application has registered here, and read what is left of a crash. The agent works
 * on threads of its own, which take no signals; no function here waits for the daemon, nor does the application wait
 * for a command. All functions may be called from any thread, and before TarnAgent_Init: what is registered stays when
 * the agent is shut down. "tarnctl list TarnSysdiagAgent" tells what the agent answers on its socket,
 * agent-<pid>.sock of the run directory.
 */
#ifndef TARN_AGENT_H
#define TARN_AGENT_H

#include <stdint.h>
#include <stdlib.h>

#include "tarn_sysdiag/platform/export.h"

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

/* ---- Faults ---- */

/*
 * While the agent runs, SIGSEGV, SIGBUS, SIGFPE, SIGILL and SIGABRT are recorded with registers and stack in the black
 * box of the user, a file that the daemon reads, now or after a restart of the machine: in /var/lib/tarn-faults or,
 * with a run directory of one's own, beside its sockets; $TARN_FAULT_DIR names another directory. Then the signal goes
 * to the handler that was installed before; by default the process ends as it would have without the agent.
 */

/* Gives the calling thread a stack for signal handlers, so that the overflow of its own can be recorded. The thread
 * that calls TarnAgent_Init has one. 0, or 12. */
TARN_EXPORT uint32_t TarnAgent_PrepareThread(void);

/* Records that an expression did not hold; for the macros. */
TARN_EXPORT void TarnAgent_AssertionFailed(const char *pcExpression, const char *pcFile, unsigned uiLine,
                                           const char *pcFunction);

/* Records an expression that does not hold, and goes on. Its value is 1 when it holds. */
#define TARN_AGENT_CHECK(expression)                                                                                   \
    ((expression) ? 1 : (TarnAgent_AssertionFailed(#expression, __FILE__, __LINE__, __func__), 0))

/* The same, and aborts. */
#define TARN_AGENT_ASSERT(expression) (TARN_AGENT_CHECK(expression) ? (void)0 : abort())

/* ---- Memory ---- */

/*
 * A partition is a region of ullBytes that serves blocks of uiBlockBytes, a power of two from 64 on, in runs of 1, 2,
 * 4, ... blocks. With both 0 it has no memory: the application allocates by itself and accounts for it. Names have 1
 * to 31 bytes. 0; 22; 12 without memory for it. Destroying: 2 for an unknown one, 16 while handles are open in it.
 */
TARN_EXPORT uint32_t TarnAgent_CreatePartition(const char *pcName, uint64_t ullBytes, uint32_t uiBlockBytes,
                                               uint32_t *puiPtId);
TARN_EXPORT uint32_t TarnAgent_DestroyPartition(uint32_t uiPtId);

/* A handle takes blocks of one partition, for one purpose. 0; 22; 2 for an unknown one; closing: 16 while it holds
 * blocks. */
TARN_EXPORT uint32_t TarnAgent_OpenMemHandle(uint32_t uiPtId, const char *pcName, uint32_t *puiHandleId);
TARN_EXPORT uint32_t TarnAgent_CloseMemHandle(uint32_t uiHandleId);

/* Allocates, aligned to 32 bytes; null when there is no room, no such handle, or one that is only for accounting. A
 * double free, a block whose guard bytes were overwritten, and an address that is no block are reported, and do no harm
 * here. */
TARN_EXPORT void *TarnAgent_Alloc(uint32_t uiHandleId, size_t ulBytes);
TARN_EXPORT void TarnAgent_Free(void *pStart);

/* Accounts for memory that the application has allocated by itself. 0; 22 for null or a handle that allocates; 2 for an
 * unknown handle or address; 17 for an address that is accounted for. */
TARN_EXPORT uint32_t TarnAgent_AccountAlloc(uint32_t uiHandleId, const void *pStart, size_t ulBytes);
TARN_EXPORT uint32_t TarnAgent_AccountFree(const void *pStart);

/* ---- Messages ---- */

/* What rules see of a message; names may be null. */
typedef struct TarnAgentMessage {
    uint32_t uiType;
    const char *pcSender;
    const char *pcReceiver;
    const char *pcName;
} TarnAgentMessage;

/* Whether the message-control rules let a message pass: 1 or 0. Without rules all do. */
TARN_EXPORT int TarnAgent_MessagePasses(const TarnAgentMessage *pstMessage);

/* ---- Timers ---- */

/* Runs on the agent's timer thread: what takes long delays the other timers. */
typedef void (*TarnAgentTimerFunction)(uint32_t uiTimerId, void *pUserData);

/*
 * A timer expires uiPeriodMs (1 ms to a day) after it was started, once or, when iPeriodic is not 0, again and again.
 * Timers expire while the agent runs. Starting one that runs starts it anew. Names have 1 to 31 bytes. 0; 22; 2 for an
 * unknown one. Deleting waits for the timer's function, unless it is called from a timer's function.
 */
TARN_EXPORT uint32_t TarnAgent_CreateTimer(const char *pcName, uint32_t uiPeriodMs, int iPeriodic,
                                           TarnAgentTimerFunction pfnTimer, void *pUserData, uint32_t *puiTimerId);
TARN_EXPORT uint32_t TarnAgent_StartTimer(uint32_t uiTimerId);
TARN_EXPORT uint32_t TarnAgent_StopTimer(uint32_t uiTimerId);
TARN_EXPORT uint32_t TarnAgent_DeleteTimer(uint32_t uiTimerId);

/* ---- Dead loops ---- */

/* How threads are watched, at the start {1, 1000, 10000, 90, 0, NULL}. A thread runs unbroken while it runs, or is
 * ready to, for at least uiCpuPercent of the time between two checks. */
typedef struct TarnAgentDeadLoopCfg {
    uint8_t ucSwitch;      /* 1 on, 0 off */
    uint32_t uiPeriodMs;   /* between two checks, 10 to 60000 */
    uint32_t uiLimitMs;    /* of running unbroken that count as a dead loop; at least a period */
    uint32_t uiCpuPercent; /* 1 to 100 */
    uint32_t uiCpuNum;     /* 0: threads on all CPUs are watched, else those on these */
    const uint32_t *puiCpu;
} TarnAgentDeadLoopCfg;

/* 0, or 22. */
TARN_EXPORT uint32_t TarnAgent_SetDeadLoopCfg(const TarnAgentDeadLoopCfg *pstCfg);

/* Watches the calling thread with a limit of its own, 0 for the common one; or does not watch it. 0, or 12. */
TARN_EXPORT uint32_t TarnAgent_WatchThread(uint32_t uiLimitMs);
TARN_EXPORT uint32_t TarnAgent_ExemptThread(void);

/* ---- Health ---- */

/* Looks at one item: its level, a TARN_HEALTH_LEVEL_... of tarn_sysdiag/values.h, and a text. Runs on the agent's
 * thread, when it is asked for, and should not take long. */
typedef uint32_t (*TarnAgentHealthCheck)(uint32_t uiLimit, char *pcText, size_t ulRoom, void *pUserData);

/* Adds an item of 64 or higher, under a name of 1 to 63 bytes. 0; 22; 17 for one that is there. */
TARN_EXPORT uint32_t TarnAgent_AddHealthItem(uint8_t ucFunction, const char *pcName, uint32_t uiLimit,
                                             TarnAgentHealthCheck pfnCheck, void *pUserData);

/* ---- Resources ---- */

/* Notified of a resource, TARN_RESOURCE_..., its level, TARN_RESOURCE_LEVEL_..., and its use in permille. Runs on the
 * agent's thread. */
typedef void (*TarnAgentResourceFunction)(uint8_t ucResource, uint8_t ucLevel, uint16_t usUsage, void *pUserData);

/* Subscribes to events, a sum of TARN_EVENT_..., under a name of 1 to 31 bytes; the agent passes it on to the
 * daemon. 0; 22; 17 for a name that is taken; 2 for an unknown one. */
TARN_EXPORT uint32_t TarnAgent_Subscribe(const char *pcName, uint32_t uiEvents, TarnAgentResourceFunction pfnFunction,
                                         void *pUserData);
TARN_EXPORT uint32_t TarnAgent_Unsubscribe(const char *pcName);

/* The level of a resource as the daemon told last; 0 before that. */
TARN_EXPORT uint8_t TarnAgent_ResourceLevel(uint8_t ucResource);

/*
 * Tells the daemon that the agent leaves, and stops it. Waits for what runs on the agent's threads: not to be called
 * from a command, a timer or another function of the application that runs there. 0, or 22 when no agent runs.
 */
TARN_EXPORT uint32_t TarnAgent_Shutdown(void);

#ifdef __cplusplus
}
#endif

#endif
