#include "memory_meter.h"

#include <sanitizer/allocator_interface.h>

#include <algorithm>

#include "invariant.h"

namespace fuzz {

namespace {

long held = 0;
long most = 0;

void on_malloc(const volatile void *, size_t size) {
  held += static_cast<long>(size);
  most = std::max(most, held);
}

void on_free(const volatile void *block) {
  held -= static_cast<long>(__sanitizer_get_allocated_size(block));
}

}  // namespace

void install_memory_meter() {
  require(__sanitizer_install_malloc_and_free_hooks(on_malloc, on_free) > 0, "memory hooks");
}

memory_meter::memory_meter() : start_(held) {
  most = held;
}

long memory_meter::peak() const {
  return most - start_;
}

}  // namespace fuzz
