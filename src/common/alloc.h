// Memory that can run out: everything the library allocates itself comes from here, as null on
// failure and never as an exception.
#ifndef PKI_COMMON_ALLOC_H
#define PKI_COMMON_ALLOC_H

#include <cstdlib>
#include <memory>

namespace pki {

// A deleter that is a free function, so that a smart pointer stays one pointer wide.
template <auto Free>
struct free_with {
  template <class T>
  void operator()(T *object) const {
    Free(object);
  }
};

template <class T>
using malloc_ptr = std::unique_ptr<T, free_with<std::free>>;

// At least one octet, so that null always means failure.
[[nodiscard]] inline void *allocate(size_t size) {
  return std::malloc(size ? size : 1);
}

// A zeroed plain structure, to be freed with free.
template <class T>
[[nodiscard]] T *make() {
  return static_cast<T *>(std::calloc(1, sizeof(T)));
}

}  // namespace pki

#endif
