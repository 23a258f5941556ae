/* Test program of the instruction counter (insn_count_plugin.c): adds up the
 * numbers below its argument N between the two marks of InsnCountMarker.h,
 * so that the instructions counted between the marks grow by the same
 * amount with each step of N. Prints the sum. */
#include <stdio.h>
#include <stdlib.h>

#include "InsnCountMarker.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s <N>\n", argv[0]);
    return 2;
  }
  unsigned long count = strtoul(argv[1], NULL, 10);
  volatile unsigned long sum = 0;
  InsnCountMark(1);
  for (unsigned long i = 0; i < count; ++i) sum += i;
  InsnCountMark(0);
  printf("sum %lu\n", (unsigned long)sum);
  return 0;
}
