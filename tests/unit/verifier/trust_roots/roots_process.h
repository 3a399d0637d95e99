// Built-in roots go into the store once a process, so these tests run each case in a fresh one,
// where the device's folder of roots is a temporary one.
#ifndef TESTS_UNIT_VERIFIER_TRUST_ROOTS_PROCESS_H
#define TESTS_UNIT_VERIFIER_TRUST_ROOTS_PROCESS_H

#include <functional>

#include "roots_support.h"
#include "unit/pki/lifecycle_process.h"

namespace roots_support {

// From now on "/etc/pki/roots" is `folder`, for opendir, stat and open.
void redirect_device_folder(const std::string &folder);
// Opening a file or folder of that path fails from now on, with that errno.
void refuse_to_open(const std::string &path, int error);
// Reading that file fails from now on, with that errno, behind so many octets.
void break_off_reading(const std::string &path, size_t octets, int error);
// The files of "/etc/pki/roots" that were opened so far.
texts opened_files();
// What happens once, as soon as stat told about a file of "/etc/pki/roots", or fstat about any.
void after_next_stat(const std::function<void()> &happens);
void after_next_fstat(const std::function<void()> &happens);

template <void (*body)(temp_folder &)>
void with_device_folder() {
  support::init_library();
  temp_folder folder;
  redirect_device_folder(folder.path());
  clear_log();
  body(folder);
  fake_allocator::stop_failing();
  fake_failures::reset();
  // What the store gives up has to be gone: the sanitizer looks for the rest.
  support::empty_store();
  zv_cv_clear_cert_sts_info_cache();
  zv_cv_clear_crl_cache();
}

// What `body` returned in a copy of this process; something else when it missed an expectation or
// left something behind there.
template <class Body>
int result_in_copy(Body body) {
  fflush(nullptr);
  int failed_before = support::result_so_far().total_part_count();
  pid_t child = fork();
  if (child == 0) {
    int result = body();
    for (int i = failed_before; i < support::result_so_far().total_part_count(); i++)
      if (support::result_so_far().GetTestPartResult(i).failed())
        support::end_process(failed_before);
    exit(result);
  }
  int status = 0;
  bool ended = child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status);
  return ended ? WEXITSTATUS(status) : -1;
}

}  // namespace roots_support

// A test whose body runs in a fresh process, with the device's folder as `device`.
#define FRESH_PROCESS_TEST(suite, name)                                         \
  void suite##_##name([[maybe_unused]] roots_support::temp_folder &device);     \
  TEST(suite, name) {                                                           \
    EXPECT_IN_FRESH_PROCESS(roots_support::with_device_folder<suite##_##name>); \
  }                                                                             \
  void suite##_##name([[maybe_unused]] roots_support::temp_folder &device)

#endif
