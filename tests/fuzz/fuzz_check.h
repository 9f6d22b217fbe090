// The check every fuzz target uses: a failed one aborts, so libFuzzer saves
// the input.
#ifndef KOVRAN_TESTS_FUZZ_FUZZ_CHECK_H_
#define KOVRAN_TESTS_FUZZ_FUZZ_CHECK_H_

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition)                                               \
  do {                                                                      \
    if (!(condition)) {                                                     \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, \
                   #condition);                                             \
      std::abort();                                                         \
    }                                                                       \
  } while (0)

#endif  // KOVRAN_TESTS_FUZZ_FUZZ_CHECK_H_
