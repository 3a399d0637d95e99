#include "support/store_fixture.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

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

void remove_board_folder() {
  std::string folder = getenv("BOARD_INFO_DIR");
  unlink((folder + "/serialnumber").c_str());
  unlink((folder + "/secret").c_str());
  rmdir(folder.c_str());
}

template <class Record>
void empty_list(STACK *list, void (*release)(Record *)) {
  while (OPENSSL_sk_num(list) > 0)
    release(static_cast<Record *>(OPENSSL_sk_pop(list)));
}

}  // namespace

void init_library() {
  static const bool done = [] {
    setenv("BOARD_INFO_DIR", make_board_folder().c_str(), 1);
    atexit(remove_board_folder);
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
