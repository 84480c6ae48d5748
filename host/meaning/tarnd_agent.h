// What the daemon's service for agents means.
#pragma once

#include "host/meaning/shared_records.h"
#include "tarn_sysdiag/types/tarnd_agent.h"

namespace host::meaning {

METHOD(AgentRegInfo, Group::kAgents,
       "Tells the daemon that an agent runs in a process, or that it leaves. It is repeated from time to time, so that "
       "a daemon that was started anew knows its agents.",
       "name=example process=1 version=1 announces=leaves")
RECORD(AgentRegInfoInput, {"szAgentName", "name", Text(), "The agent's name."},
       {"uiValue1", "process", Pid(), "The agent's process."},
       {"uiValue2", "version", Number(), "The version of the agent's interface."},
       {"ucValue3", "announces", OneOf(agent_announces::kAll), "What the agent announces."})
RECORD(AgentRegInfoResult,
       {"uiValue1", "result", Errno(), "0, or why it was not done: ESRCH (3), there is no such process."},
       {"szAgentName", "name", Text(), "The agent's name."},
       {"uiValue2", "process", Pid(), "The daemon's process, by which an agent sees that it speaks to a new one."})

METHOD(TarnAppSubscribe, Group::kAgents,
       "Subscribes a process to events of the machine's resources, instead of what it subscribed to before. Its agent "
       "is told of them, at first of how they are. The subscription ends with the process.",
       "process=1 events=cpu")
RECORD(AppSubscribeInput, {"uiValue1", "process", Pid(), "The subscriber's process."},
       {"uiValue2", "events", SumOf(event::kAll), "The events that it wants; none ends the subscription."})

} // namespace host::meaning
