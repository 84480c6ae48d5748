/* Debian's headers of C++ are made for glibc. What they name of it and musl lacks; nothing calls it. */
#ifdef __cplusplus
#include <locale.h>
#include <pthread.h>
#include <time.h>

#define __GLIBC_PREREQ(major, minor) 0
typedef locale_t __locale_t;
extern "C" int pthread_cond_clockwait(pthread_cond_t *, pthread_mutex_t *, clockid_t, const struct timespec *);
#endif
