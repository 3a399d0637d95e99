// PKCS#7 messages: opened, decrypted, and read as every SCEP message.
#include <libpki/libpki.h>
#include <openssl/err.h>

#include <cstdlib>

#include "der_mutator.h"
#include "fixed_key.h"
#include "invariant.h"
#include "support/certs.h"
#include "support/crl_der.h"

namespace {

using namespace fuzz;

const support::cert &recipient() {
  static const support::cert made = fixed_ca();
  return made;
}

bool is_known(int code) {
  return code == PKI_OK ||
         (code > 0 && std::string(pki_strerror(static_cast<unsigned>(code))) != pki_strerror(9999));
}

void open_bytes(const uint8_t *data, size_t size) {
  unsigned char *content = nullptr;
  int length = 0;
  int code = verify_bytes(data, static_cast<int>(size), fixed_key().get(), &content, &length);
  require(is_known(code) && code != PKI_OUT_OF_MEMORY, "verify_bytes: a known code", code);
  require((code == PKI_OK) == (content != nullptr), "verify_bytes: content or an error", code);
  std::free(content);
}

void open_signed(PKCS7 *message) {
  X509 *signer = nullptr;
  PKCS7 *content = nullptr;
  int code = pkcs7_verify(message, &signer, &content);
  require(is_known(code) && code != PKI_OUT_OF_MEMORY, "pkcs7_verify: a known code", code);
  require(code == PKI_OK || (!signer && !content), "pkcs7_verify: nothing from a failure", code);
}

void open_enveloped(PKCS7 *message) {
  unsigned char *plain = nullptr;
  int length = 0;
  int code = pkcs7_decrypt(message, fixed_key().get(), recipient().get(), &plain, &length);
  require(is_known(code) && code != PKI_OUT_OF_MEMORY, "pkcs7_decrypt: a known code", code);
  require((code == PKI_OK) == (plain != nullptr), "pkcs7_decrypt: a text or an error", code);
  std::free(plain);
}

const der_input form = {
    0,
    {support::der_oid("1.2.840.113549.1.7.1"), support::der_oid("1.2.840.113549.1.7.2"),
     support::der_oid("1.2.840.113549.1.7.3"), support::der_algorithm("sha256"),
     support::der_algorithm("rsaEncryption"), support::der_tlv(0x30, ""),
     support::der_tlv(0x31, ""), support::der_tlv(0xa0, ""), support::der_tlv(0x04, ""),
     support::der_tlv(0x04, "content"), support::der_integer(1), support::der_name("fixed")}};

}  // namespace

extern "C" {

int LLVMFuzzerInitialize(int *, char ***) {
  return libpki_init() == 0 ? 0 : 1;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  open_bytes(data, size);
  const uint8_t *in = data;
  if (PKCS7 *message = d2i_PKCS7(nullptr, &in, static_cast<long>(size))) {
    open_signed(message);
    open_enveloped(message);
    PKCS7_free(message);
  }
  ERR_clear_error();
  return 0;
}

size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size, unsigned seed) {
  return mutate_der_input(form, data, size, max_size, seed);
}
}
