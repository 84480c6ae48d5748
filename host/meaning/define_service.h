// The methods of a service with what they mean, and the table of them, kMethods. The file that includes it has included
// the service's meanings, and defines SERVICE as its name and METHOD_LIST as the header that lists its methods.
#define TARN_METHOD(method, request, response)                                                                         \
    DEFINE_MEANING(SERVICE, method, Tarn_sys_diag_##request, Tarn_sys_diag_##response)
#define TARN_METHOD_NO_REPLY(method, request)                                                                          \
    DEFINE_MEANING(SERVICE, method, Tarn_sys_diag_##request, host::meaning::NoRecord)
#include METHOD_LIST

namespace host::meaning {

namespace {

constexpr const Method *kMethods[] = {
#define TARN_METHOD(method, request, response) &host::methods::method,
#define TARN_METHOD_NO_REPLY(method, request) &host::methods::method,
#include METHOD_LIST
};

} // namespace

} // namespace host::meaning
