/* The system call by which a program marks a place for the plugin that counts its instructions. */
#ifndef BENCH_MARK_H
#define BENCH_MARK_H

#define BENCH_MARK 0x7A00

#endif
