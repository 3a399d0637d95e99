// What OCSP responders answer, up to the status that it gives.
#include <libpki/libpki.h>
#include <openssl/err.h>

#include <cstdlib>
#include <cstring>

#include "der_mutator.h"
#include "fixed_key.h"
#include "invariant.h"
#include "support/crl_der.h"
#include "verifier/cert_verifier/ocsp.h"

namespace {

using namespace fuzz;

// A question without a nonce.
pki::ocsp_query make_query() {
  static const support::cert issuer = fixed_ca(), cert = fixed_device();
  pki::ocsp_query query = {};
  query.cert = cert.get();
  query.issuer = issuer.get();
  query.request.reset(OCSP_REQUEST_new());
  query.cert_id = OCSP_cert_to_id(EVP_sha1(), cert.get(), issuer.get());
  OCSP_request_add0_id(query.request.get(), query.cert_id);
  return query;
}

const der_input form = {
    0,
    {support::der_oid("1.3.6.1.5.5.7.48.1.1"), support::der_oid("1.3.6.1.5.5.7.48.1.2"),
     support::der_generalized_time(time(nullptr)), support::der_generalized_time(0),
     support::der_tlv(0x18, "20231114221320.5Z"), support::der_tlv(0x80, ""),
     support::der_tlv(0x82, ""), support::der_tlv(0x0a, std::string(1, '\0')),
     support::der_tlv(0x0a, "\x03"), support::der_tlv(0xa0, ""), support::der_tlv(0xa1, ""),
     support::der_tlv(0x04, ""), support::der_tlv(0x30, "")}};

}  // namespace

extern "C" {

int LLVMFuzzerInitialize(int *, char ***) {
  return libpki_init() == 0 ? 0 : 1;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  pki::ocsp_reply reply;
  reply.body.reset(static_cast<unsigned char *>(std::malloc(size + 1)));
  reply.length = static_cast<int>(size);
  if (size > 0)
    std::memcpy(reply.body.get(), data, size);
  pki::ocsp_basicresp_ptr basic;
  int code = pki::open_basic_response(reply, &basic);
  require(code == PKI_OK || code == PKI_ASN1_DECODE_ERROR || code == PKI_OCSP_ERROR,
          "opening: a known code", code);
  require((code == PKI_OK) == (basic != nullptr), "a response or an error", code);
  if (basic) {
    pki::ocsp_query query = make_query();
    pki::ocsp_status found = {-1, nullptr};
    code = pki::find_status(query, basic.get(), &found);
    require(code == PKI_OK || code == PKI_TIME_MISMATCH || code == PKI_OCSP_ERROR,
            "looking: a known code", code);
    require(code != PKI_OK || (found.status >= 0 && found.status <= 2), "a status", found.status);
  }
  ERR_clear_error();
  return 0;
}

size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size, unsigned seed) {
  return mutate_der_input(form, data, size, max_size, seed);
}
}
