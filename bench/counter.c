/*
 * A plugin for qemu-user that counts the instructions of the program it runs. The program marks a place with a system
 * call that Linux does not have; the plugin then prints the call's first argument and the count since the last mark.
 * Debian has no package with qemu's header, so what is used of its interface, version 1, is declared here.
 */
#include <inttypes.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "bench/mark.h"

#define EXPORT __attribute__((visibility("default")))

struct qemu_plugin_tb;
struct qemu_info_t;
typedef uint64_t qemu_plugin_id_t;
enum { QEMU_PLUGIN_INLINE_ADD_U64 = 0 };

size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb *tb);
void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id,
                                           void (*cb)(qemu_plugin_id_t id, struct qemu_plugin_tb *tb));
void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb *tb, int op, void *ptr, uint64_t imm);
void qemu_plugin_register_vcpu_syscall_cb(qemu_plugin_id_t id,
                                          void (*cb)(qemu_plugin_id_t id, unsigned vcpu, int64_t num, uint64_t a1,
                                                     uint64_t a2, uint64_t a3, uint64_t a4, uint64_t a5, uint64_t a6,
                                                     uint64_t a7, uint64_t a8));

EXPORT int qemu_plugin_version = 1;

static uint64_t instructionNum;

static void OnTranslation(qemu_plugin_id_t id, struct qemu_plugin_tb *tb) {
    (void)id;
    qemu_plugin_register_vcpu_tb_exec_inline(tb, QEMU_PLUGIN_INLINE_ADD_U64, &instructionNum,
                                             qemu_plugin_tb_n_insns(tb));
}

static void OnSystemCall(qemu_plugin_id_t id, unsigned vcpu, int64_t num, uint64_t a1, uint64_t a2, uint64_t a3,
                         uint64_t a4, uint64_t a5, uint64_t a6, uint64_t a7, uint64_t a8) {
    (void)id, (void)vcpu, (void)a2, (void)a3, (void)a4, (void)a5, (void)a6, (void)a7, (void)a8;
    if (num == BENCH_MARK) {
        fprintf(stderr, "%" PRIu64 " %" PRIu64 "\n", a1 & UINT32_MAX, instructionNum);
        instructionNum = 0;
    }
}

EXPORT int qemu_plugin_install(qemu_plugin_id_t id, const struct qemu_info_t *info, int argc, char **argv) {
    (void)info, (void)argc, (void)argv;
    qemu_plugin_register_vcpu_tb_trans_cb(id, OnTranslation);
    qemu_plugin_register_vcpu_syscall_cb(id, OnSystemCall);
    return 0;
}
