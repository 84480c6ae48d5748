/*
 * The records of TarnSysdiagTarndAgent, the service through which diagnosis agents announce themselves to the daemon
 * and subscribe to it. None of them owns memory. The name arrays travel whole and need no terminating NUL; members
 * called uiValueN and ucValueN are carried as they are, agents and daemon agree on what they mean.
 */
#ifndef TARN_TYPES_TARND_AGENT_H
#define TARN_TYPES_TARND_AGENT_H

#include "tarn_sysdiag/types/common.h"
#include "tarn_sysdiag/types/table.h"

/* Request of AgentRegInfo: the agent that registers. */
typedef struct Tarn_sys_diag_AgentRegInfoInput {
    char szAgentName[32];
    uint32_t uiValue1;
    uint32_t uiValue2;
    uint8_t ucValue3;
} Tarn_sys_diag_AgentRegInfoInput;
VELTO_TABLE(AgentRegInfoInput, szAgentName, uiValue1, uiValue2, ucValue3)

/* Reply of AgentRegInfo. */
typedef struct Tarn_sys_diag_AgentRegInfoResult {
    uint32_t uiValue1;
    char szAgentName[32];
    uint32_t uiValue2;
} Tarn_sys_diag_AgentRegInfoResult;
VELTO_TABLE(AgentRegInfoResult, uiValue1, szAgentName, uiValue2)

/* Request of TarnAppSubscribe: what an agent subscribes to. The reply is Result. */
typedef struct Tarn_sys_diag_AppSubscribeInput {
    uint32_t uiValue1;
    uint32_t uiValue2;
} Tarn_sys_diag_AppSubscribeInput;
VELTO_TABLE(AppSubscribeInput, uiValue1, uiValue2)

#endif
