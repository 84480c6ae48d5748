/* A header of the project's own, under a name that others have used as well. */
#ifndef CONSUMER_TYPES_COMMON_H
#define CONSUMER_TYPES_COMMON_H

#define CONSUMER_GREETING "hello"

#endif
