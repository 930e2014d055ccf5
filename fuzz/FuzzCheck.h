// The invariant check of the fuzz targets: a broken one prints the condition
// and aborts, which libFuzzer reports as a crash and saves the input.
#ifndef ZEMAIL_FUZZ_FUZZ_CHECK_H
#define ZEMAIL_FUZZ_FUZZ_CHECK_H

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition)                                                                  \
    do {                                                                                       \
        if (!(condition)) {                                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                      \
        }                                                                                      \
    } while (0)

#endif
