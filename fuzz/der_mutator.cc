#include "der_mutator.h"

#include <algorithm>
#include <cstring>

#include "der_tree.h"

extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t max_size);

namespace fuzz {

namespace {

std::string body_of(const der_input &form, const uint8_t *data, size_t size) {
  return size > form.choices ? std::string(data + form.choices, data + size) : std::string();
}

// Behind the choices; what does not fit is cut.
size_t put_body(const der_input &form, const std::string &body, uint8_t *out, size_t max_size) {
  size_t size = std::min(body.size(), max_size - form.choices);
  if (size > 0)
    std::memcpy(out + form.choices, body.data(), size);
  return form.choices + size;
}

}  // namespace

size_t mutate_der_input(const der_input &form, uint8_t *data, size_t size, size_t max_size,
                        unsigned seed) {
  random_source random(seed);
  if (max_size <= form.choices)
    return LLVMFuzzerMutate(data, size, max_size);
  if (size < form.choices) {
    std::memset(data + size, 0, form.choices - size);
    size = form.choices;
  }
  if (form.choices > 0 && below(random, 6) == 0) {
    LLVMFuzzerMutate(data, form.choices, form.choices);
    return size;
  }
  if (below(random, 10) == 0)
    return form.choices +
           LLVMFuzzerMutate(data + form.choices, size - form.choices, max_size - form.choices);
  der_nodes nodes = parse_der(body_of(form, data, size));
  for (size_t count = 1 + below(random, 3); count > 0; count--)
    change_der(random, &nodes, form.interesting);
  return put_body(form, write_der(nodes), data, max_size);
}

size_t cross_der_inputs(const der_input &form, const uint8_t *one, size_t one_size,
                        const uint8_t *other, size_t other_size, uint8_t *out, size_t max_size,
                        unsigned seed) {
  random_source random(seed);
  if (max_size <= form.choices || one_size < form.choices)
    return 0;
  der_nodes nodes = parse_der(body_of(form, one, one_size));
  cross_der(random, &nodes, parse_der(body_of(form, other, other_size)));
  std::memcpy(out, one, form.choices);
  return put_body(form, write_der(nodes), out, max_size);
}

}  // namespace fuzz
