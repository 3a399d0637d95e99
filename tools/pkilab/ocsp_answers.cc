#include "tools/pkilab/ocsp_answers.h"

#include <openssl/bn.h>
#include <openssl/err.h>

#include "tools/common/cert_text.h"
#include "tools/common/failure.h"
#include "tools/common/keys.h"

namespace pkilab {

namespace {

using request_ptr = std::unique_ptr<OCSP_REQUEST, tools::free_with<OCSP_REQUEST_free>>;
using integer_ptr = std::unique_ptr<ASN1_INTEGER, tools::free_with<ASN1_STRING_free>>;
using number_ptr = std::unique_ptr<BIGNUM, tools::free_with<BN_free>>;

constexpr long malformed_request = OCSP_RESPONSE_STATUS_MALFORMEDREQUEST;

request_ptr decode(const std::string &der) {
  const auto *at = reinterpret_cast<const unsigned char *>(der.data());
  request_ptr request(d2i_OCSP_REQUEST(nullptr, &at, static_cast<long>(der.size())));
  ERR_clear_error();
  return request;
}

ASN1_INTEGER *serial_of(OCSP_CERTID *id) {
  ASN1_INTEGER *serial = nullptr;
  OCSP_id_get0_info(nullptr, nullptr, nullptr, &serial, id);
  return serial;
}

cert_id_ptr make_id(const EVP_MD *digest, X509 *issuer, const ASN1_INTEGER *serial) {
  cert_id_ptr id(OCSP_cert_id_new(digest, X509_get_subject_name(issuer),
                                  X509_get0_pubkey_bitstr(issuer), serial));
  if (!id)
    throw tools::failure("cannot make a certificate id: " + tools::openssl_reason());
  return id;
}

integer_ptr next_number(const ASN1_INTEGER *serial) {
  number_ptr number(ASN1_INTEGER_to_BN(serial, nullptr));
  integer_ptr next(number && BN_add_word(number.get(), 1) == 1
                       ? BN_to_ASN1_INTEGER(number.get(), nullptr)
                       : nullptr);
  if (!next)
    throw tools::failure("cannot count on from a serial number: " + tools::openssl_reason());
  return next;
}

std::string describe(const ASN1_INTEGER *serial, int status, bool as_told) {
  return tools::serial_text(serial) + " " + OCSP_cert_status_str(status) +
         (as_told ? " (as told)" : "");
}

}  // namespace

const ca::pair *ocsp_responder::find_issuer(OCSP_CERTID *id) const {
  ASN1_OBJECT *algorithm = nullptr;
  OCSP_id_get0_info(nullptr, &algorithm, nullptr, nullptr, id);
  const EVP_MD *digest = EVP_get_digestbyobj(algorithm);
  if (!digest)
    return nullptr;
  for (const ca::pair *own : keys_.pairs())
    if (OCSP_id_issuer_cmp(make_id(digest, own->cert.get(), serial_of(id)).get(), id) == 0)
      return own;
  return nullptr;
}

ocsp_finding ocsp_responder::find_status(OCSP_CERTID *asked, const ca::pair *issuer) const {
  ocsp_finding finding;
  const ASN1_INTEGER *serial = serial_of(asked);
  if (!issuer || !certs_.find(X509_get_subject_name(issuer->cert.get()), serial))
    return finding;
  std::optional<revocation> revoked = revoked_.find(serial);
  finding.status = revoked ? V_OCSP_CERTSTATUS_REVOKED : V_OCSP_CERTSTATUS_GOOD;
  finding.how = revoked.value_or(revocation{});
  return finding;
}

cert_id_ptr ocsp_responder::id_to_answer(OCSP_CERTID *asked, const ca::pair &issuer,
                                         ocsp_cert_id how) const {
  ASN1_INTEGER *serial = serial_of(asked);
  switch (how) {
    case ocsp_cert_id::other_serial:
      return make_id(EVP_sha1(), issuer.cert.get(), next_number(serial).get());
    case ocsp_cert_id::other_issuer:
      return make_id(EVP_sha1(), other_ca(keys_, issuer).cert.get(), serial);
    case ocsp_cert_id::sha256:
      return make_id(EVP_sha256(), issuer.cert.get(), serial);
    case ocsp_cert_id::asked:
      break;
  }
  return cert_id_ptr(OCSP_CERTID_dup(asked));
}

ocsp_answer ocsp_responder::answer(const std::string &der, const ocsp_options &options,
                                   const std::string &authority) {
  if (options.body == ocsp_body::no_message)
    return {"these octets are no OCSP response", "no message (as told)"};
  if (options.response_status != 0 || options.body == ocsp_body::no_bytes)
    return {make_ocsp_error(options.response_status),
            "response status " + std::to_string(options.response_status) + " (as told)"};
  request_ptr request = decode(der);
  int count = request ? OCSP_request_onereq_count(request.get()) : 0;
  if (count == 0)
    return {make_ocsp_error(malformed_request), "malformedRequest: this is no OCSP request"};
  std::vector<ocsp_finding> findings;
  std::string note;
  const ca::pair *issuer = &keys_.issuing();
  for (int i = 0; i < count; i++) {
    OCSP_CERTID *asked = OCSP_onereq_get0_id(OCSP_request_onereq_get0(request.get(), i));
    const ca::pair *found = find_issuer(asked);
    // Nobody else's certificates are known here; the issuing CA says so.
    issuer = found ? found : &keys_.issuing();
    ocsp_finding finding = find_status(asked, found);
    if (options.status && *options.status != finding.status) {
      finding.status = *options.status;
      finding.how = {time(nullptr), -1};
    }
    finding.id = id_to_answer(asked, *issuer, options.cert_id);
    note += (note.empty() ? "" : ", ") +
            describe(serial_of(asked), finding.status, options.status.has_value());
    findings.push_back(std::move(finding));
  }
  const ca::pair &signer = signers_.get(*issuer, options, authority);
  return {make_ocsp_response(findings, request.get(), signer, options), note};
}

}  // namespace pkilab
