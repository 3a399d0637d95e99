#include "fakes/allocator.h"

#include <cerrno>
#include <cstdlib>

namespace {

[[gnu::tls_model("initial-exec")]] thread_local size_t countdown = 0;
[[gnu::tls_model("initial-exec")]] thread_local size_t made = 0;
[[gnu::tls_model("initial-exec")]] thread_local size_t asked_for = 0;
[[gnu::tls_model("initial-exec")]] thread_local bool sticky = false;
[[gnu::tls_model("initial-exec")]] thread_local bool failed = false;
[[gnu::tls_model("initial-exec")]] thread_local int paused = 0;

// The dynamic linker allocates before a sanitizer is ready, so nothing here may be instrumented.
#define UNSANITIZED [[gnu::no_sanitize("address", "undefined")]]

#if !defined(__SANITIZE_THREAD__)
UNSANITIZED bool must_fail(size_t octets) {
  if (paused)
    return false;
  made++;
  asked_for += octets;
  if (failed && sticky)
    return true;
  if (countdown == 0 || --countdown > 0)
    return false;
  failed = true;
  return true;
}
#endif

}  // namespace

namespace fake_allocator {

#if defined(__SANITIZE_THREAD__)
bool available() {
  return false;
}
#else
bool available() {
  return true;
}
#endif

void fail_at(size_t n, bool stay_failed) {
  countdown = n;
  made = 0;
  asked_for = 0;
  sticky = stay_failed;
  failed = false;
}

void stop_failing() {
  countdown = 0;
  made = 0;
  asked_for = 0;
  sticky = false;
}

size_t allocations() {
  return made;
}
size_t octets() {
  return asked_for;
}
bool has_failed() {
  return failed;
}

pause::pause() {
  paused++;
}
pause::~pause() {
  paused--;
}

namespace {

size_t number_from_environment(const char *name, size_t otherwise) {
  const char *asked = std::getenv(name);
  return asked ? std::strtoul(asked, nullptr, 10) : otherwise;
}

// A slow machine (PKI_TEST_PATIENCE) takes samples behind the first hundred.
size_t distance_behind(size_t n) {
  constexpr size_t tried_everywhere = 100;
  return n < tried_everywhere ? 1 : number_from_environment("TEST_PATIENCE", 1);
}

}  // namespace

size_t sweep_step(size_t usual) {
  return number_from_environment("SWEEP_STEP", usual);
}

size_t sweep(const std::function<void()> &operation,
             const std::function<void(size_t)> &after_failure, bool stay_failed, size_t limit) {
  if (!available())
    return 0;
  for (size_t n = 1; n <= limit; n += distance_behind(n)) {
    fail_at(n, stay_failed);
    operation();
    stop_failing();
    if (!failed)
      return n - 1;
    after_failure(n);
  }
  return limit;
}

}  // namespace fake_allocator

#if !defined(__SANITIZE_THREAD__)

#if defined(__SANITIZE_ADDRESS__)
#define REAL(name) __interceptor_##name
#else
#define REAL(name) __libc_##name
#endif

extern "C" {

void *REAL(malloc)(size_t size);
void *REAL(calloc)(size_t count, size_t size);
void *REAL(realloc)(void *old, size_t size);
const char *__lsan_default_suppressions();

UNSANITIZED void *malloc(size_t size) {
  if (must_fail(size)) {
    errno = ENOMEM;
    return nullptr;
  }
  return REAL(malloc)(size);
}

UNSANITIZED void *calloc(size_t count, size_t size) {
  if (must_fail(count * size)) {
    errno = ENOMEM;
    return nullptr;
  }
  return REAL(calloc)(count, size);
}

UNSANITIZED void *realloc(void *old, size_t size) {
  if (must_fail(size)) {
    errno = ENOMEM;
    return nullptr;
  }
  return REAL(realloc)(old, size);
}

// What the dynamic linker allocates it refers to from where the leak checker does not look. The
// checker knows that, but it knows the linker as the caller of malloc only, and that is our malloc.
// And OpenSSL loses 16 octets when it cannot enter a new object into its table.
const char *__lsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier)
  return "leak:/ld-linux\nleak:OBJ_add_object\n";
}
}

#endif
