// The replies' releases of all methods.
#include "host/answer/answer.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tarn_sysdiag/server/tarnd_agent.h"

#define TARN_METHOD TARN_REPLY_RELEASE
#define TARN_METHOD_NO_REPLY TARN_REPLY_RELEASE_NONE
#include "tarn_sysdiag/server/tarnd_methods.h"

#define TARN_METHOD TARN_REPLY_RELEASE
#define TARN_METHOD_NO_REPLY TARN_REPLY_RELEASE_NONE
#include "tarn_sysdiag/server/tarnd_agent_methods.h"
