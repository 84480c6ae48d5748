// Text formatting, compiled into the agent: without locales, which are ten times its size, and without fractions, which
// are half of it. A floating-point number would be formatted as nothing.
#define FMT_STATIC_THOUSANDS_SEPARATOR ','
#define FMT_USE_FLOAT 0
#define FMT_USE_DOUBLE 0
#define FMT_USE_LONG_DOUBLE 0
#include <fmt/format-inl.h>

FMT_BEGIN_NAMESPACE
namespace detail {

template thousands_sep_result<char> thousands_sep_impl(locale_ref);
template char decimal_point_impl(locale_ref);
template void buffer<char>::append(const char *, const char *);
template void vformat_to(buffer<char> &, string_view, basic_format_args<FMT_BUFFER_CONTEXT(char)>, locale_ref);

} // namespace detail
FMT_END_NAMESPACE
