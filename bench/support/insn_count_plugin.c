/* A TCG plugin for qemu-user (QEMU 7.2, plugin API version 1) that counts the
 * guest instructions a program executes: every translated block adds its
 * instruction count to one counter each time it runs (an inline add, no
 * call). Besides the total it counts the instructions between the marks of
 * InsnCountMarker.h: at a begin mark it notes the counter, at the end mark
 * it adds what ran since. A block's count is added when the block starts and
 * a mark's system call ends its block, so a section holds exactly the
 * instructions after the begin mark's call up to the end mark's call. At
 * exit it writes one line,
 *   insn_count total <n> marked <n> sections <n> target <name>
 * to the file named by its argument out=<path>, or to qemu's log (stderr).
 * The counter is one shared integer: exact for a program that runs one
 * thread, as the drivers measured with it do.
 *
 * Debian ships no qemu-plugin.h, so the few declarations this plugin uses
 * are written out below as QEMU's plugin API version 1 defines them. */
#include <inttypes.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "InsnCountMarker.h"

/* ---- QEMU plugin API, version 1 (the part used here) ---------------------- */

#define QEMU_PLUGIN_EXPORT __attribute__((visibility("default")))
#define QEMU_PLUGIN_VERSION 1

typedef uint64_t qemu_plugin_id_t;

typedef struct qemu_info_t {
  const char* target_name;
  struct {
    int min;
    int cur;
  } version;
  bool system_emulation;
  union {
    struct {
      int smp_vcpus;
      int max_vcpus;
    } system;
  };
} qemu_info_t;

struct qemu_plugin_tb;

enum qemu_plugin_op { QEMU_PLUGIN_INLINE_ADD_U64 };

typedef void (*qemu_plugin_vcpu_tb_trans_cb_t)(qemu_plugin_id_t id,
                                               struct qemu_plugin_tb* tb);
typedef void (*qemu_plugin_udata_cb_t)(qemu_plugin_id_t id, void* userdata);
typedef void (*qemu_plugin_vcpu_syscall_cb_t)(qemu_plugin_id_t id,
                                              unsigned int vcpu_index, int64_t num,
                                              uint64_t a1, uint64_t a2, uint64_t a3,
                                              uint64_t a4, uint64_t a5, uint64_t a6,
                                              uint64_t a7, uint64_t a8);

void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id,
                                           qemu_plugin_vcpu_tb_trans_cb_t cb);
void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb* tb,
                                              enum qemu_plugin_op op, void* ptr,
                                              uint64_t imm);
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* tb);
void qemu_plugin_register_vcpu_syscall_cb(qemu_plugin_id_t id,
                                          qemu_plugin_vcpu_syscall_cb_t cb);
void qemu_plugin_register_atexit_cb(qemu_plugin_id_t id, qemu_plugin_udata_cb_t cb,
                                    void* userdata);
void qemu_plugin_outs(const char* string);

QEMU_PLUGIN_EXPORT int qemu_plugin_version = QEMU_PLUGIN_VERSION;
QEMU_PLUGIN_EXPORT int qemu_plugin_install(qemu_plugin_id_t id, const qemu_info_t* info,
                                           int argc, char** argv);

/* ---- The counter ------------------------------------------------------------ */

/* Every guest instruction run so far. */
static uint64_t executed;
/* `executed` at the begin mark of the open section, if any. */
static uint64_t sectionStart;
static bool sectionOpen;
/* The instructions inside closed sections, and how many sections closed. */
static uint64_t marked;
static unsigned sections;
/* The target's write system call; -1: not known, so no marks are seen. */
static int64_t writeNumber = -1;
static char targetName[32];
static char outPath[4096];

/* The number of write(2) on the targets the project runs under qemu-user. */
static int64_t WriteNumberOf(const char* target) {
  if (strcmp(target, "arm") == 0 || strcmp(target, "i386") == 0) return 4;
  if (strcmp(target, "x86_64") == 0) return 1;
  if (strcmp(target, "aarch64") == 0) return 64;
  return -1;
}

static void OnTranslate(qemu_plugin_id_t id, struct qemu_plugin_tb* tb) {
  (void)id;
  qemu_plugin_register_vcpu_tb_exec_inline(tb, QEMU_PLUGIN_INLINE_ADD_U64, &executed,
                                           qemu_plugin_tb_n_insns(tb));
}

static void OnSyscall(qemu_plugin_id_t id, unsigned int vcpu, int64_t num, uint64_t a1,
                      uint64_t a2, uint64_t a3, uint64_t a4, uint64_t a5, uint64_t a6,
                      uint64_t a7, uint64_t a8) {
  (void)id, (void)vcpu, (void)a2, (void)a4, (void)a5, (void)a6, (void)a7, (void)a8;
  if (num != writeNumber || (uint32_t)a1 != UINT32_MAX) return;
  if (a3 == INSN_COUNT_BEGIN_LENGTH) {
    sectionStart = executed;
    sectionOpen = true;
  } else if (a3 == INSN_COUNT_END_LENGTH && sectionOpen) {
    marked += executed - sectionStart;
    sectionOpen = false;
    ++sections;
  }
}

static void OnExit(qemu_plugin_id_t id, void* userdata) {
  (void)id, (void)userdata;
  char line[160];
  snprintf(line, sizeof(line),
           "insn_count total %" PRIu64 " marked %" PRIu64 " sections %u target %s\n",
           executed, marked, sections, targetName);
  FILE* out = outPath[0] != '\0' ? fopen(outPath, "w") : NULL;
  if (out == NULL) {
    qemu_plugin_outs(line);
    return;
  }
  fputs(line, out);
  fclose(out);
}

QEMU_PLUGIN_EXPORT int qemu_plugin_install(qemu_plugin_id_t id, const qemu_info_t* info,
                                           int argc, char** argv) {
  for (int i = 0; i < argc; ++i) {
    if (strncmp(argv[i], "out=", 4) != 0) {
      fprintf(stderr, "insn_count: unknown argument %s (only out=<path>)\n", argv[i]);
      return -1;
    }
    snprintf(outPath, sizeof(outPath), "%s", argv[i] + 4);
  }
  snprintf(targetName, sizeof(targetName), "%s", info->target_name);
  writeNumber = WriteNumberOf(info->target_name);
  qemu_plugin_register_vcpu_tb_trans_cb(id, OnTranslate);
  qemu_plugin_register_vcpu_syscall_cb(id, OnSyscall);
  qemu_plugin_register_atexit_cb(id, OnExit, NULL);
  return 0;
}
