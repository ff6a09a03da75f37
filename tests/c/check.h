/* CHECK for the C test programs: counts passed and failed checks, and names each failure on
 * stderr. A program prints "N passed, N failed" at its end. */
#ifndef VIDRA_TESTS_C_CHECK_H_
#define VIDRA_TESTS_C_CHECK_H_

#include <stdio.h>

static int passed = 0, failed = 0;

#define CHECK(condition)                                                            \
  do {                                                                              \
    if (condition) {                                                                \
      ++passed;                                                                     \
    } else {                                                                        \
      ++failed;                                                                     \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
    }                                                                               \
  } while (0)

#endif /* VIDRA_TESTS_C_CHECK_H_ */
