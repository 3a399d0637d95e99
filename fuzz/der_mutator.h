// libFuzzer's mutator and crossover for inputs of a few octets of choices and a DER body.
#ifndef FUZZ_DER_MUTATOR_H
#define FUZZ_DER_MUTATOR_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace fuzz {

struct der_input {
  size_t choices = 0;                    // octets in front of the body
  std::vector<std::string> interesting;  // encodings that are put in
};

size_t mutate_der_input(const der_input &form, uint8_t *data, size_t size, size_t max_size,
                        unsigned seed);
size_t cross_der_inputs(const der_input &form, const uint8_t *one, size_t one_size,
                        const uint8_t *other, size_t other_size, uint8_t *out, size_t max_size,
                        unsigned seed);

}  // namespace fuzz

#endif
