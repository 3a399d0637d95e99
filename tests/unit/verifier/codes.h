// A code that tests of several files expect.
#ifndef TESTS_UNIT_VERIFIER_CODES_H
#define TESTS_UNIT_VERIFIER_CODES_H

constexpr int out_of_memory = 2;

#endif
