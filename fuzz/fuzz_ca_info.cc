// CA-info documents.
#include <libpki/libpki.h>
#include <openssl/err.h>

#include <algorithm>
#include <iterator>

#include "invariant.h"

namespace {

using namespace fuzz;

constexpr int codes[] = {0, 9, 11, 13, 30, 31, 32, 33, 34, 35, 36, 37, 38, 39, 40, 41, 53, 54, 55};

void empty_provisioned() {
  auto *certs = pki_store->provisioned_certs;
  while (OPENSSL_sk_num(certs) > 0)
    X509_free(static_cast<X509 *>(OPENSSL_sk_pop(certs)));
}

}  // namespace

extern "C" {

int LLVMFuzzerInitialize(int *, char ***) {
  return libpki_init() == 0 ? 0 : 1;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  ca_info *info = alloc_ca_info();
  int code = parse_ca_info_doc(data, static_cast<int>(size), pki_store, info);
  require(std::count(std::begin(codes), std::end(codes), code) == 1, "a known code", code);
  // What a failure left is as sound as anything else.
  ca_info *copy = dup_ca_info(info);
  require(copy != nullptr, "what was read can be copied");
  free_ca_info(copy);
  free_ca_info(info);
  empty_provisioned();
  ERR_clear_error();
  return 0;
}
}
