#include "host/meaning/master.h"

#define TARN_METHOD(method, request, response)                                                                         \
    DEFINE_MEANING(TarnSysdiagMaster, method, Tarn_sys_diag_##request, Tarn_sys_diag_##response)
#define TARN_METHOD_NO_REPLY(method, request)                                                                          \
    DEFINE_MEANING(TarnSysdiagMaster, method, Tarn_sys_diag_##request, host::meaning::NoRecord)
#include "client/master_methods.h"

namespace host::meaning {

namespace {

constexpr const Method *kMethods[] = {
#define TARN_METHOD(method, request, response) MEANING_ADDRESS(method)
#define TARN_METHOD_NO_REPLY(method, request) MEANING_ADDRESS(method)
#include "client/master_methods.h"
};

} // namespace

const Service kMaster{"TarnSysdiagMaster",
                      "The master, which holds the configuration that the daemon starts with. A method that fails has "
                      "no reply: its call ends with an errno value as its status.",
                      kMethods};

} // namespace host::meaning
