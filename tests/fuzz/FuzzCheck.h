// Failure reporting for the fuzzers: a broken expectation aborts, so that
// libFuzzer keeps the input that caused it.
#pragma once

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition)                                                                  \
  do {                                                                                         \
    if (!(condition)) {                                                                        \
      std::fprintf(stderr, "%s:%d: expectation failed: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                            \
    }                                                                                          \
  } while (false)
