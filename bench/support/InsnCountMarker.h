/* Marks the start and the end of a measured section for the instruction
 * counter of qemu-user (insn_count_plugin.c), from C and C++ alike. A mark is
 * a write to file descriptor -1: it fails at once (EBADF natively and under
 * valgrind, EFAULT or EBADF under qemu) and changes nothing, while the plugin
 * sees the system call before it runs and tells the two marks apart by
 * their lengths. No other code writes to descriptor -1, so nothing else
 * looks like a mark. The call costs a few dozen instructions, counted as
 * part of the section. */
#ifndef IPC_DB_BENCH_SUPPORT_INSNCOUNTMARKER_H_
#define IPC_DB_BENCH_SUPPORT_INSNCOUNTMARKER_H_

#include <unistd.h>

#define INSN_COUNT_BEGIN_TEXT "insn_count: section begins\n"
#define INSN_COUNT_END_TEXT "insn_count: section ends\n"
#define INSN_COUNT_BEGIN_LENGTH (sizeof(INSN_COUNT_BEGIN_TEXT) - 1)
#define INSN_COUNT_END_LENGTH (sizeof(INSN_COUNT_END_TEXT) - 1)

/* Marks the start of the section when `begin` is non-zero, else its end. */
static inline void InsnCountMark(int begin) {
  ssize_t written = begin ? write(-1, INSN_COUNT_BEGIN_TEXT, INSN_COUNT_BEGIN_LENGTH)
                          : write(-1, INSN_COUNT_END_TEXT, INSN_COUNT_END_LENGTH);
  (void)written;
}

#endif /* IPC_DB_BENCH_SUPPORT_INSNCOUNTMARKER_H_ */
