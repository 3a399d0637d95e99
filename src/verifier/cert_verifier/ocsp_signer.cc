// Who signed an OCSP response, and whether that counts (RFC 6960 4.2.2.2).
#include <libpki/error.h>
#include <libpki/util.h>
#include <openssl/x509v3.h>

#include <climits>
#include <cstring>

#include "common/limits.h"
#include "verifier/cert_verifier/internal.h"
#include "verifier/cert_verifier/ocsp.h"
#include "verifier/signer_candidates.h"

namespace pki {

namespace {

// Exactly one is set.
struct responder_id {
  const ASN1_OCTET_STRING *key_hash = nullptr;
  const X509_NAME *name = nullptr;
};

// What the status of a signer is worth.
enum class trust : unsigned char { no, yes, failed };

int read_responder_id(const OCSP_BASICRESP *basic, responder_id *id) {
  if (OCSP_resp_get0_id(basic, &id->key_hash, &id->name) == 1)
    return PKI_OK;
  syslog(log_error, "Unknown responder-id type %d encountered", -1);
  return PKI_INVALID_ARGS;
}

// As the store's search: to find nothing for want of memory would be a wrong answer.
fitness fits_key_hash(const X509 *cert, const ASN1_OCTET_STRING *wanted) {
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  if (!X509_get0_pubkey_bitstr(cert))
    return fitness::unfit;
  if (X509_pubkey_digest(cert, EVP_sha1(), hash, &length) != 1)
    return fitness::no_memory;
  bool is_same = ASN1_STRING_length(wanted) == static_cast<int>(length) &&
                 std::memcmp(ASN1_STRING_get0_data(wanted), hash, length) == 0;
  return is_same ? fitness::fit : fitness::unfit;
}

fitness fits(const X509 *cert, const responder_id &id) {
  if (id.key_hash)
    return fits_key_hash(cert, id.key_hash);
  const X509_NAME *subject = X509_get_subject_name(cert);
  if (prepare_to_compare(subject))
    return fitness::no_memory;
  return X509_NAME_cmp(subject, id.name) == 0 ? fitness::fit : fitness::unfit;
}

int find_in_store(const responder_id &id, STACK **found, index_range *collected) {
  if (id.name)
    return find_certs_by_subject(id.name, found, collected);
  return find_certs_by_key_hash(EVP_sha1(), ASN1_STRING_get0_data(id.key_hash),
                                ASN1_STRING_length(id.key_hash), found, collected);
}

// The store's certificates, then those that the configuration, the chain, the response and the peer
// bring.
int add_candidates(const ocsp_query &query, const OCSP_BASICRESP *basic, const responder_id &id,
                   signer_candidates *candidates) {
  auto *list = reinterpret_cast<STACK *>(candidates->certs.get());
  index_range collected;
  int error = find_in_store(id, &list, &collected);
  // A hash of another length is nobody's.
  if (error && error != PKI_INVALID_ARGS)
    return error;
  if ((error = make_places(collected, ocsp_max_certs + max_peer_signers, candidates)))
    return error;
  auto is_named = [&](const X509 *cert) { return fits(cert, id); };
  for (X509 *cert : {query.responder->signer, query.issuer})
    if ((error = add_fitting(cert, origin::listed, is_named, candidates)))
      return error;
  if ((error = add_sent(OCSP_resp_get0_certs(basic), ocsp_max_certs, origin::message, is_named,
                        candidates)))
    return error;
  const STACK_OF(X509) *untrusted = query.ctx ? X509_STORE_CTX_get0_untrusted(query.ctx) : nullptr;
  return add_sent(untrusted, INT_MAX, origin::peer, is_named, candidates);
}

int find_candidates(const ocsp_query &query, const OCSP_BASICRESP *basic, const responder_id &id,
                    signer_candidates *candidates) {
  openssl_error_mark the_line_says_it_all;
  candidates->certs.reset(sk_X509_new_null());
  if (!candidates->certs)
    return want_of_memory();
  int error = add_candidates(query, basic, id, candidates);
  if (error == PKI_OUT_OF_MEMORY)
    return want_of_memory();
  if (error)
    syslog(log_error, "Error looking up ocsp-response signers: %s",
           pki_strerror(static_cast<unsigned>(error)));
  return error;
}

bool verifies(const OCSP_BASICRESP *basic, EVP_PKEY *key) {
  openssl_error_mark another_key_is_no_error;
  return ASN1_item_verify(ASN1_ITEM_rptr(OCSP_RESPDATA),
                          const_cast<X509_ALGOR *>(OCSP_resp_get0_tbs_sigalg(basic)),
                          const_cast<ASN1_OCTET_STRING *>(OCSP_resp_get0_signature(basic)),
                          const_cast<OCSP_RESPDATA *>(OCSP_resp_get0_respdata(basic)), key) == 1;
}

// Null, with the reasons in the log, when the certificate's key cannot be used.
EVP_PKEY *public_key_of(const X509 *cert, int *error) {
  EVP_PKEY *key = X509_get0_pubkey(cert);
  if (key)
    return key;
  syslog(log_error, "failed to get public key from issuer cert");
  *error = openssl_failure(PKI_INVALID_PUBLIC_KEY);
  return nullptr;
}

authorship check_response_signature(const OCSP_BASICRESP *basic, const X509 *cert) {
  int error = PKI_OK;
  EVP_PKEY *key = public_key_of(cert, &error);
  if (!key)
    return error == PKI_OUT_OF_MEMORY ? authorship::no_memory : authorship::foreign;
  return verifies(basic, key) ? authorship::own : authorship::foreign;
}

// A response's own certificates are all tried.
static_assert(ocsp_max_certs <= max_signer_keys);

// Drops the candidates that did not sign.
int keep_signers(const OCSP_BASICRESP *basic, const signer_candidates &candidates) {
  signer_trial trial(
      candidates, [](const X509 *) { return fitness::fit; },
      [&](const X509 *cert) { return check_response_signature(basic, cert); });
  if (!trial.run())
    return PKI_OUT_OF_MEMORY;
  int count = sk_X509_num(candidates.certs.get());
  if (count < 1) {
    syslog(log_error, "No signer cert found which could verify the ocsp response");
    return PKI_NO_SIGNERS;
  }
  syslog(log_debug, "Found %d signer certs which could verify the ocsp response", count);
  return PKI_OK;
}

bool may_sign_for_others(X509 *signer) {
  uint32_t flags = X509_get_extension_flags(signer);
  if ((flags & EXFLAG_XKUSAGE) != 0 && (X509_get_extended_key_usage(signer) & XKU_OCSP_SIGN) != 0)
    return true;
  syslog(log_warning,
         "ocsp-response signer (%s) has no ocsp-signing extended key-usage - discarding",
         subject_text(signer).get());
  return false;
}

// An issuer who may not sign answers himself cannot delegate them either.
trust check_issuer_of_delegate(const ocsp_query &query, X509 *signer) {
  int error = PKI_OK;
  if (!public_key_of(query.issuer, &error))
    return trust::failed;
  if (query.issuer_may_sign && is_issued_by(signer, query.issuer))
    return trust::yes;
  syslog(log_warning, "ocsp-response signer cert (%s) was not issued by cert-issuer - discarding",
         subject_text(signer).get());
  return trust::no;
}

bool is_signer_valid_now(const X509 *signer) {
  if (is_within_validity(signer, ocsp_clock_tolerance_seconds))
    return true;
  syslog(log_warning, "ocsp-response signer (%s) is outside its validity period - discarding",
         subject_text(signer).get());
  return false;
}

bool is_spared_status_check(X509 *signer) {
  if (X509_get_ext_by_NID(signer, NID_id_pkix_OCSP_noCheck, -1) < 0)
    return false;
  syslog(log_debug,
         "ocsp-response signer's certificate has the no-check extension - not doing any status "
         "check on it");
  return true;
}

// Nobody vouches for himself, whatever his certificate allows.
bool is_cert_in_question(const ocsp_query &query, X509 *signer) {
  if (!may_be_same_cert(signer, query.cert))
    return false;
  syslog(log_warning,
         "ocsp-response signer's cert is the same cert being validated! Ignoring response");
  return true;
}

trust check_status_of_signer(const ocsp_query &query, X509 *signer, bool is_issuers) {
  if (is_cert_in_question(query, signer))
    return trust::no;
  subject_text subject(signer);
  syslog(log_debug, "checking certificate status of ocsp-response signer's cert (%s)",
         subject.get());
  unsigned char issuer_may_sign = is_issuers ? 1 : 0;
  int status =
      zv_cv_check_cert_status(signer, query.issuer, query.ctx, issuer_may_sign, query.depth + 1);
  if (status == PKI_CERT_OK) {
    syslog(log_debug, "ocsp-response signer's cert (%s) is ok", subject.get());
    return trust::yes;
  }
  syslog(log_warning, "ocsp-response signer's cert (%s) was %s - rejecting it", subject.get(),
         zv_cv_cert_sts_to_str(status));
  return trust::no;
}

// The certificate's issuer speaks for a responder that he issued, also with an earlier certificate
// of his, and for nobody else's.
trust check_configured_signer(const ocsp_query &query, X509 *signer) {
  return check_status_of_signer(query, signer, is_signed_by(signer, query.issuer));
}

// A responder that the issuer has delegated.
trust check_delegation(const ocsp_query &query, X509 *signer) {
  if (!may_sign_for_others(signer))
    return trust::no;
  trust issued = check_issuer_of_delegate(query, signer);
  if (issued != trust::yes)
    return issued;
  if (!is_signer_valid_now(signer))
    return trust::no;
  bool is_spared = !may_be_same_cert(signer, query.cert) && is_spared_status_check(signer);
  return is_spared ? trust::yes : check_status_of_signer(query, signer, true);
}

trust check_trust(const ocsp_query &query, X509 *signer) {
  bool is_configured = is_same_cert(signer, query.responder->signer);
  if (is_configured && query.responder->ocsp_flag) {
    syslog(log_debug, "ocsp-response signer is the same as the configured one - accepting it");
    return trust::yes;
  }
  if (query.issuer_may_sign && is_same_cert(signer, query.issuer)) {
    syslog(log_debug, "ocsp-response signer is the same as the cert issuer - accepting it");
    return trust::yes;
  }
  return is_configured ? check_configured_signer(query, signer) : check_delegation(query, signer);
}

}  // namespace

int check_signer(const ocsp_query &query, const OCSP_BASICRESP *basic) {
  responder_id id;
  if (int error = read_responder_id(basic, &id))
    return error;
  signer_candidates candidates;
  if (int error = find_candidates(query, basic, id, &candidates))
    return error;
  if (int error = keep_signers(basic, candidates))
    return error;
  for (int i = 0; i < sk_X509_num(candidates.certs.get()); i++) {
    trust found = check_trust(query, sk_X509_value(candidates.certs.get(), i));
    if (found == trust::yes)
      return PKI_OK;
    if (found == trust::failed)
      return PKI_INVALID_PUBLIC_KEY;
  }
  syslog(log_error, "no ocsp-response signer certs were trusted");
  return PKI_NO_SIGNERS;
}

}  // namespace pki
