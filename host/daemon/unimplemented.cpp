// The replies' releases of all methods, and an answer for each that is not listed as implemented.
#include "host/answer/answer.h"
#include "host/daemon/implemented.h"
#include "server/tarnd.h"
#include "server/tarnd_agent.h"

#define TARN_METHOD(method, request, response) TARN_UNIMPLEMENTED(method, request, response, TARND_IMPLEMENTS_##method)
#define TARN_METHOD_NO_REPLY(method, request) TARN_UNIMPLEMENTED_NO_REPLY(method, request, TARND_IMPLEMENTS_##method)
#include "server/tarnd_methods.h"

#define TARN_METHOD(method, request, response) TARN_UNIMPLEMENTED(method, request, response, TARND_IMPLEMENTS_##method)
#define TARN_METHOD_NO_REPLY(method, request) TARN_UNIMPLEMENTED_NO_REPLY(method, request, TARND_IMPLEMENTS_##method)
#include "server/tarnd_agent_methods.h"
