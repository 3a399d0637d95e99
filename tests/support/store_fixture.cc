#include "support/store_fixture.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "fakes/allocator.h"
#include "fakes/clock.h"
#include "fakes/failures.h"
#include "fakes/log_capture.h"
#include "support/certs.h"

namespace support {

namespace {

std::string make_board_folder() {
  char path[] = "/tmp/libpki-board-XXXXXX";
  std::string folder = mkdtemp(path);
  std::ofstream(folder + "/serialnumber") << "SN-0001\n";
  std::ofstream(folder + "/secret") << "secret-0001";
  return folder;
}

// Names the folder to the processes that death tests start: they share it with the one that waits
// for them, since they may end without cleaning up.
constexpr char shared_folder_variable[] = "LIBPKI_TEST_BOARD_DIR";

// Gone when the process that made it ends; a forked copy or a started process leaves it alone.
struct board_folder {
  board_folder() {
    if (const char *shared = getenv(shared_folder_variable)) {
      path = shared;
      return;
    }
    path = make_board_folder();
    maker = getpid();
    setenv(shared_folder_variable, path.c_str(), 1);
  }
  board_folder(const board_folder &) = delete;
  board_folder &operator=(const board_folder &) = delete;
  ~board_folder() {
    if (getpid() != maker)
      return;
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }

  std::string path;
  pid_t maker = -1;
};

template <class Record>
void empty_list(STACK *list, void (*release)(Record *)) {
  while (OPENSSL_sk_num(list) > 0)
    release(static_cast<Record *>(OPENSSL_sk_pop(list)));
}

}  // namespace

void init_library() {
  static const bool done = [] {
    static const board_folder board;
    setenv("BOARD_INFO_DIR", board.path.c_str(), 1);
    libpki_init();
    return true;
  }();
  (void)done;
}

void empty_store() {
  empty_list(pki_store->key_store, free_key_info);
  empty_list(pki_store->ca_infos, free_ca_info);
  empty_list(pki_store->provisioned_certs, X509_free);
  empty_list(pki_store->collected_certs, X509_free);
  empty_list(pki_store->global_status_rules, free_cert_status_info);
}

void store_test::SetUp() {
  init_library();
  empty_store();
  zv_cv_clear_cert_sts_info_cache();
  zv_cv_clear_crl_cache();
  zv_cv_disable_crl_check(0);
  clear_openssl_errors();
  clear_log();
}

void store_test::TearDown() {
  fake_allocator::stop_failing();
  fake_failures::reset();
  fake_clock::use_real();
  empty_store();
  zv_cv_clear_cert_sts_info_cache();
  zv_cv_clear_crl_cache();
  clear_openssl_errors();
}

}  // namespace support
