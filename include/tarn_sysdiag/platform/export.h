/*
 * Marks what crosses between the library and its process, in either direction. All else may be built hidden, a daemon's
 * own code too: what the library takes from it stays visible.
 */
#ifndef TARN_PLATFORM_EXPORT_H
#define TARN_PLATFORM_EXPORT_H

#define TARN_EXPORT __attribute__((visibility("default")))

#endif
