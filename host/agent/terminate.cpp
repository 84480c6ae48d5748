// In place of the C++ library's, which would bring a demangler along to name the exception that nobody caught.
#include <cstdlib>
#include <exception>

namespace __gnu_cxx {

void __verbose_terminate_handler() {
    abort();
}

} // namespace __gnu_cxx
