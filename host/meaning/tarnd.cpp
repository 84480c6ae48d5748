#include "host/meaning/tarnd.h"

#define TARN_METHOD(method, request, response)                                                                         \
    DEFINE_MEANING(TarnSysdiagTarnd, method, Tarn_sys_diag_##request, Tarn_sys_diag_##response)
#define TARN_METHOD_NO_REPLY(method, request)                                                                          \
    DEFINE_MEANING(TarnSysdiagTarnd, method, Tarn_sys_diag_##request, host::meaning::NoRecord)
#include "server/tarnd_methods.h"

namespace host::meaning {

namespace {

constexpr const Method *kMethods[] = {
#define TARN_METHOD(method, request, response) MEANING_ADDRESS(method)
#define TARN_METHOD_NO_REPLY(method, request) MEANING_ADDRESS(method)
#include "server/tarnd_methods.h"
};

} // namespace

const Service kTarnd{"TarnSysdiagTarnd",
                     "The diagnosis daemon of a device. A method whose reply has a result answers with it: 0, or an "
                     "errno value. The call of "
                     "any other that fails ends with the errno value as its status.",
                     kMethods};

} // namespace host::meaning
