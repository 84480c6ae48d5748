// The methods that the daemon implements; each stands in the file of its subject. All others of the method lists answer
// ENOSYS. A method listed here without an implementation does not link, and one implemented without being listed
// is defined twice.
#pragma once

#define TARND_IMPLEMENTS_AgentRegInfo ~,
#define TARND_IMPLEMENTS_TarnAppSubscribe ~,

#define TARND_IMPLEMENTS_PidIsOnline ~,
#define TARND_IMPLEMENTS_GetProcStatByPid ~,
#define TARND_IMPLEMENTS_GetAllTidsByPid ~,

#define TARND_IMPLEMENTS_CalculateOsProcCpuUse ~,
#define TARND_IMPLEMENTS_CalculateProcThreadCpuUse ~,

#define TARND_IMPLEMENTS_GetHugePagesInfo ~,

#define TARND_IMPLEMENTS_GetTaskInfo ~,

#define TARND_IMPLEMENTS_ZipLogFile ~,

#define TARND_IMPLEMENTS_SetTimezone ~,

#define TARND_IMPLEMENTS_DBGCmdExecShowByTarnd ~,
#define TARND_IMPLEMENTS_DBGCmdExecResultGetByTarnd ~,
#define TARND_IMPLEMENTS_DBGCmdExecCleanByTarnd ~,

#define TARND_IMPLEMENTS_DetectTarndServerOnline ~,
