/* Marks what the library exports; all else is built hidden. */
#ifndef TARN_PLATFORM_EXPORT_H
#define TARN_PLATFORM_EXPORT_H

#define TARN_EXPORT __attribute__((visibility("default")))

#endif
