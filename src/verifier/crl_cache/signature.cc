// A downloaded CRL is accepted when somebody known made its signature.
#include <libpki/error.h>
#include <libpki/util.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <climits>
#include <iterator>

#include "common/log.h"
#include "verifier/cert_verifier/internal.h"
#include "verifier/cert_verifier/trace.h"
#include "verifier/crl_cache/extensions.h"
#include "verifier/crl_cache/fetch.h"
#include "verifier/crl_cache/general_names.h"

namespace pki {

namespace {

constexpr int known_critical_extensions[] = {
    NID_authority_key_identifier,   NID_issuer_alt_name, NID_crl_number,
    NID_issuing_distribution_point, NID_freshest_crl,    NID_delta_crl};

struct download {
  const crl_info *crli;
  const crl_info *base_record;
  const crl_question &asked;
  crl_request request;
  evp_md_ctx_ptr digest;
};

bool is_known(int nid) {
  return std::find(std::begin(known_critical_extensions), std::end(known_critical_extensions),
                   nid) != std::end(known_critical_extensions);
}

int check_critical_extensions(const X509_CRL *crl) {
  for (int i = 0; i < X509_CRL_get_ext_count(crl); i++) {
    X509_EXTENSION *extension = X509_CRL_get_ext(crl, i);
    ASN1_OBJECT *object = X509_EXTENSION_get_object(extension);
    if (!X509_EXTENSION_get_critical(extension) || is_known(OBJ_obj2nid(object)))
      continue;
    syslog(log_warning, "Found unknown critical crl extension: %s", oid_line(object).get());
    return PKI_UNKNOWN_CRITICAL_EXTENSION;
  }
  return PKI_OK;
}

fitness fits_name(const X509 *cert, const X509_NAME *issuer) {
  const X509_NAME *subject = X509_get_subject_name(cert);
  if (prepare_to_compare(subject))
    return fitness::no_memory;
  return X509_NAME_cmp(subject, issuer) == 0 ? fitness::fit : fitness::unfit;
}

// The store's certificates, then those that the configuration, the chain and the peer bring.
int add_candidates(const download &now, const X509_NAME *issuer, signer_candidates *candidates) {
  auto *list = reinterpret_cast<STACK *>(candidates->certs.get());
  index_range collected;
  if (int error = find_certs_by_subject(issuer, &list, &collected))
    return error;
  if (make_places(collected, max_peer_signers, candidates))
    return openssl_failure(PKI_OUT_OF_MEMORY);
  auto is_named = [&](const X509 *cert) { return fits_name(cert, issuer); };
  X509 *const known[] = {now.crli->crl_signer,
                         now.base_record ? now.base_record->crl_signer : nullptr, now.asked.issuer};
  for (X509 *cert : known)
    if (int error = add_fitting(cert, origin::listed, is_named, candidates))
      return log_reasons(error);
  const STACK_OF(X509) *untrusted =
      now.asked.trust ? X509_STORE_CTX_get0_untrusted(now.asked.trust) : nullptr;
  return log_reasons(add_sent(untrusted, INT_MAX, origin::peer, is_named, candidates));
}

int find_candidates(const download &now, signer_candidates *candidates) {
  const X509_NAME *issuer = X509_CRL_get_issuer(now.request.crl);
  candidates->certs.reset(sk_X509_new_null());
  if (!candidates->certs)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  if (int error = add_candidates(now, issuer, candidates))
    return error;
  if (sk_X509_num(candidates->certs.get()) > 0)
    return PKI_OK;
  syslog(log_error, "No signer cert found for CRL (%s)", name_line(issuer).get());
  return PKI_NO_SIGNERS;
}

bool fits_key_id(const AUTHORITY_KEYID *id, X509 *cert) {
  const ASN1_OCTET_STRING *own = X509_get0_subject_key_id(cert);
  return !id->keyid || !own || ASN1_OCTET_STRING_cmp(id->keyid, own) == 0;
}

bool fits_serial(const AUTHORITY_KEYID *id, const X509 *cert) {
  return !id->serial || ASN1_INTEGER_cmp(id->serial, X509_get0_serialNumber(cert)) == 0;
}

// A certificate always has an issuer name, so its subjectAltName is never asked.
bool fits_issuer(const AUTHORITY_KEYID *id, const X509 *cert) {
  if (!id->issuer)
    return true;
  const X509_NAME *named = cv_find_dn(id->issuer);
  return named && X509_NAME_cmp(named, X509_get_issuer_name(cert)) == 0;
}

// RFC 5280 5.2.1.
bool fits_authority_key_id(const AUTHORITY_KEYID *id, X509 *cert) {
  return !id || (fits_key_id(id, cert) && fits_serial(id, cert) && fits_issuer(id, cert));
}

int keep_signers(const download &now, const signer_candidates &candidates) {
  authority_keyid_ptr key_id;
  presence found = read_crl_extension(now.request.crl, NID_authority_key_identifier, &key_id);
  if (found == presence::no_memory)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  if (found == presence::unreadable) {
    syslog(log_warning, "Error decoding AuthorityKeyIdentifier extension in CRL '%s':",
           name_line(X509_CRL_get_issuer(now.request.crl)).get());
    return openssl_failure(PKI_ASN1_DECODE_ERROR);
  }
  memory_watch memory;
  ERR_set_mark();
  auto fits = [&](X509 *cert) {
    bool is_meant = fits_authority_key_id(key_id.get(), cert);
    if (memory.ran_out())
      return fitness::no_memory;
    return is_meant ? fitness::fit : fitness::unfit;
  };
  auto verify = [&](const X509 *cert) {
    authorship author = check_crl_signature(now.request.crl, now.digest.get(), cert);
    return memory.ran_out() ? authorship::no_memory : author;
  };
  signer_trial trial(candidates, fits, verify);
  if (!trial.run()) {
    ERR_clear_last_mark();
    return openssl_failure(PKI_OUT_OF_MEMORY);
  }
  if (sk_X509_num(candidates.certs.get()) > 0) {
    ERR_pop_to_mark();  // what is queued is about those that did not sign
    return PKI_OK;
  }
  ERR_clear_last_mark();
  syslog(log_error, "No signer cert found which could verify the crl (%s)",
         name_line(X509_CRL_get_issuer(now.request.crl)).get());
  log_openssl_errors(log_error);
  return PKI_SIG_VERIFY_FAILED;
}

// An extension that limits what the CRL says must not be taken for none. (A delta CRL's is compared
// with its base's.)
int check_scope_is_readable(const X509_CRL *crl) {
  issuing_dist_point_ptr scope;
  if (is_delta_crl(crl))
    return PKI_OK;
  presence found = read_crl_extension(crl, NID_issuing_distribution_point, &scope);
  if (found == presence::no_memory)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  if (found != presence::unreadable)
    return PKI_OK;
  syslog(log_warning, "Error decoding IssuingDistributionPoint extension in CRL '%s':",
         name_line(X509_CRL_get_issuer(crl)).get());
  return openssl_failure(PKI_ASN1_DECODE_ERROR);
}

int accept(const download &now, signer_candidates *signers) {
  X509_CRL *crl = now.request.crl;
  if (int error = check_this_update(crl))
    return error;
  if (int error = check_critical_extensions(crl))
    return error;
  if (int error = check_scope_is_readable(crl))
    return error;
  if (int error = find_candidates(now, signers))
    return error;
  if (int error = keep_signers(now, *signers))
    return error;
  syslog(log_debug, "downloaded a valid CRL (%s)", now.crli->url);
  return now.request.truncated ? cv_crl_mark_truncated(crl) : PKI_OK;
}

int fetch(const crl_info *crli, const crl_question &asked, const crl_info *base_record,
          fetched_crl *found) {
  download now = {crli, base_record, asked, {}, evp_md_ctx_ptr(EVP_MD_CTX_new())};
  if (!now.digest)
    return PKI_OUT_OF_MEMORY;
  now.request.tbs_digest = now.digest.get();
  now.request.target_cert = asked.cert;
  now.request.entries_may_start_at_target =
      has_configured_signer(crli) || (base_record && has_configured_signer(base_record));
  if (int error = cv_send_crl_request(&now.request, crli->url, crli->format))
    return error;
  x509_crl_ptr crl(now.request.crl);
  signer_candidates signers;
  if (int error = accept(now, &signers)) {
    syslog(log_warning, "discarding downloaded CRL (%s)", crli->url);
    return error;
  }
  found->crl = std::move(crl);
  found->signers = std::move(signers.certs);
  found->source = cv_crl_source_of(crli->url);
  return PKI_OK;
}

const X509_NAME *crl_issuer_of(const crl_info *crli, const X509 *cert) {
  if (crli->crl_issuer)
    return crli->crl_issuer;
  return has_configured_signer(crli) ? X509_get_subject_name(crli->crl_signer)
                                     : X509_get_issuer_name(cert);
}

crl_wish wish_of(const crl_info *crli, const crl_question &asked) {
  return {crl_issuer_of(crli, asked.cert),
          crli->reasons ? crli->reasons : PKI_ALL_REASONS,
          cv_crl_source_of(crli->url),
          asked.sources,
          asked.source_count,
          asked.issuer_trusted ? asked.issuer : nullptr,
          crli->crl_signer};
}

crl_references look_up(const crl_info *crli, const crl_question &asked, cache_use use) {
  return use.place < 0 ? crl_references() : cv_find_crl_in_cache(wish_of(crli, asked), use.place);
}

// The cached CRL with its signer as the only one. 81: none fits.
int find_cached(const crl_info *crli, const crl_question &asked, cache_use use,
                fetched_crl *found) {
  crl_references cached = look_up(crli, asked, use);
  if (!cached.crl || (use.only_deltas && !is_delta_crl(cached.crl.get())))
    return PKI_NO_ENTRY;
  syslog(log_debug, "found CRL in cache");
  certs_ptr signers(sk_X509_new_null());
  if (!signers || sk_X509_push(signers.get(), cached.signer.get()) <= 0)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  (void)cached.signer.release();
  found->crl = std::move(cached.crl);
  found->signers = std::move(signers);
  found->from_cache = true;
  found->accepted = cached.accepted;
  found->accepting_issuer = std::move(cached.issuer);
  found->source = cached.source;
  return PKI_OK;
}

bool verifies(const X509_CRL *crl, EVP_MD_CTX *tbs_digest, EVP_PKEY *key) {
  const ASN1_BIT_STRING *signature;
  X509_CRL_get0_signature(crl, &signature, nullptr);
  return signature &&
         EVP_VerifyFinal(tbs_digest, ASN1_STRING_get0_data(signature),
                         static_cast<unsigned>(ASN1_STRING_length(signature)), key) == 1;
}

bool can_be_copied(const EVP_MD_CTX *digest) {
  evp_md_ctx_ptr copy(EVP_MD_CTX_new());
  return copy && EVP_MD_CTX_copy_ex(copy.get(), digest) == 1;
}

}  // namespace

// OpenSSL does not always say that memory ran out, so a refusal is looked at again, and counts only
// while there is memory for the least that it takes.
authorship check_crl_signature(const X509_CRL *crl, EVP_MD_CTX *tbs_digest, const X509 *cert) {
  memory_watch memory;
  EVP_PKEY *key = X509_get0_pubkey(cert);
  for (int look = 0; key && look < 2; look++)
    if (verifies(crl, tbs_digest, key))
      return authorship::own;
  return memory.ran_out() || !can_be_copied(tbs_digest) ? authorship::no_memory
                                                        : authorship::foreign;
}

bool has_configured_signer(const crl_info *crli) {
  return !crli->dist_point && !crli->crl_issuer && crli->crl_signer;
}

bool is_delta_crl(const X509_CRL *crl) {
  return X509_CRL_get_ext_by_NID(crl, NID_delta_crl, -1) >= 0;
}

bool cv_is_cached_for_others(const crl_info *crli, const crl_question &asked, cache_use use) {
  crl_wish wish = wish_of(crli, asked);
  x509_crl_ptr cached(zv_cv_find_crl_in_cache(wish.issuer, wish.reasons, nullptr));
  return cached && !look_up(crli, asked, use).crl;
}

int cv_get_crl(const crl_info *crli, const crl_question &asked, cache_use use, fetched_crl *found,
               const crl_info *base_record) {
  *found = fetched_crl();
  int error = find_cached(crli, asked, use, found);
  if (error == PKI_NO_ENTRY)
    error = fetch(crli, asked, base_record, found);
  trace_crl(base_record ? PKI_TRACE_DELTA_GOT : PKI_TRACE_CRL_GOT, asked.cert, crli->url, error,
            found->crl.get(), found->from_cache);
  return error;
}

}  // namespace pki
