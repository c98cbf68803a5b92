#pragma once

#include <cstdio>
#include <cstdlib>

// A property every input must keep. libFuzzer treats the abort as a crash
// and saves the input that broke it.
#define FUZZ_CHECK(condition)                                                                  \
    do {                                                                                       \
        if (!(condition)) {                                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                      \
        }                                                                                      \
    } while (false)
