#include "verifier/crl_cache/delta.h"

#include <libpki/error.h>
#include <libpki/util.h>
#include <libpki/verify.h>

#include "common/limits.h"
#include "common/log.h"
#include "verifier/crl_cache/ext_compare.h"
#include "verifier/crl_cache/scope.h"

namespace pki {

namespace {

struct delta_search {
  STACK *list;
  const crl_question &asked;
  const judged_crl *base;
  const crl_info *base_record;  // may be null
  asn1_integer_ptr number;      // the base's
  // What a delta revokes must not go unsaid because it could not be read for want of memory.
  mutable bool out_of_memory = false;
};

const X509_NAME *issuer_of(const judged_crl &crl) {
  return X509_CRL_get_issuer(crl.got.crl.get());
}

// `where` stands between the extension's name and the origin, as each line words it.
bool refuse_undecodable(const char *extension, const char *where, const char *origin) {
  syslog(log_warning, "Error decoding %s extension %s '%s':", extension, where, origin);
  log_openssl_errors(log_warning);
  return false;
}

bool refuse(const char *reason) {
  syslog(log_warning, "%s", reason);
  return false;
}

// By length, then octet by octet: as numbers, for what is positive and has no leading zeros.
int compare_numbers(const ASN1_INTEGER *a, const ASN1_INTEGER *b) {
  return ASN1_STRING_cmp(a, b);
}

// Records in front of a list, taken off again at the end.
class front_records {
 public:
  explicit front_records(STACK *list) : list_(list), length_(OPENSSL_sk_num(list)) {}
  front_records(const front_records &) = delete;
  front_records &operator=(const front_records &) = delete;
  ~front_records() {
    while (OPENSSL_sk_num(list_) > length_)
      free_crl_info(static_cast<crl_info *>(OPENSSL_sk_shift(list_)));
  }

 private:
  STACK *list_;
  int length_;
};

int read_base_number(delta_search *search) {
  const X509_CRL *crl = search->base->got.crl.get();
  name_line issuer(X509_CRL_get_issuer(crl));
  switch (read_crl_extension(crl, NID_crl_number, &search->number)) {
    case presence::present:
      syslog(log_debug, "got crl-number => looking for delta-crl's");
      return PKI_OK;
    case presence::no_memory:
      return openssl_failure(PKI_OUT_OF_MEMORY);
    case presence::unreadable:
      refuse_undecodable("CRLNumber", "from CRL", issuer.get());
      return PKI_NO_ENTRY;
    default:
      syslog(log_debug, "CRL '%s' does not have crl-number => not looking for delta-crl's",
             issuer.get());
      return PKI_NO_ENTRY;
  }
}

// The points have to live as long as the records.
int list_freshest(const delta_search &search, dist_points_ptr *points) {
  const X509_CRL *crl = search.base->got.crl.get();
  const ISSUING_DIST_POINT *idp = search.base->idp.get();
  switch (read_crl_extension(crl, NID_freshest_crl, points)) {
    case presence::present:
      break;
    case presence::no_memory:
      return openssl_failure(PKI_OUT_OF_MEMORY);
    case presence::unreadable:
      refuse_undecodable("FreshestCRL", "in CRL", name_line(X509_CRL_get_issuer(crl)).get());
      return PKI_OK;
    default:
      return PKI_OK;
  }
  uint32_t reasons =
      idp && idp->onlysomereasons ? zv_cv_get_crl_reasons(idp->onlysomereasons) : PKI_ALL_REASONS;
  int error = cv_copy_dp_to_crli(points->get(), X509_CRL_get_issuer(crl), reasons, search.list,
                                 false, crl_flag_delta);
  if (error)
    syslog(log_debug, "no (valid) delta-crls found");
  return error;
}

// read_crl_extension, with want of memory remembered.
template <class Ptr>
presence read_of(const delta_search &search, const X509_CRL *crl, int nid, Ptr *value) {
  presence found = read_crl_extension(crl, nid, value);
  search.out_of_memory = search.out_of_memory || found == presence::no_memory;
  return found;
}

// Steps of the check. Each logs why it refuses.

bool fits_base_number(const delta_search &search, const X509_CRL *delta, const char *url) {
  asn1_integer_ptr base_number;
  switch (read_of(search, delta, NID_delta_crl, &base_number)) {
    case presence::present:
      break;
    case presence::no_memory:
    case presence::unreadable:
      return refuse_undecodable("DeltaCRL", "in CRL from", url);
    default:
      syslog(log_warning, "CRL from '%s' is not a delta-CRL as expected", url);
      return false;
  }
  if (compare_numbers(base_number.get(), search.number.get()) <= 0)
    return true;
  openssl_error_mark long_numbers_are_printed_as_minus_one;
  syslog(log_warning, "Base-crl-number in delta-CRL (%ld) > current crl-number (%ld)",
         ASN1_INTEGER_get(base_number.get()), ASN1_INTEGER_get(search.number.get()));
  return false;
}

bool is_newer(const delta_search &search, const X509_CRL *delta, const char *url) {
  asn1_integer_ptr number;
  switch (read_of(search, delta, NID_crl_number, &number)) {
    case presence::present:
      break;
    case presence::no_memory:
    case presence::unreadable:
      return refuse_undecodable("CRLNumber", "in Delta-CRL from", url);
    default:
      syslog(log_warning, "No crl-number found in delta-CRL from '%s'", url);
      return false;
  }
  if (compare_numbers(number.get(), search.number.get()) > 0)
    return true;
  openssl_error_mark long_numbers_are_printed_as_minus_one;
  syslog(log_warning, "delta-crl-number (%ld) < current crl-number (%ld)",
         ASN1_INTEGER_get(number.get()), ASN1_INTEGER_get(search.number.get()));
  return false;
}

bool has_same_issuer(const delta_search &search, const X509_CRL *delta) {
  const X509_NAME *base_issuer = issuer_of(*search.base);
  const X509_NAME *delta_issuer = X509_CRL_get_issuer(delta);
  if (X509_NAME_cmp(base_issuer, delta_issuer) == 0)
    return true;
  syslog(log_warning, "crl issuer (%s) != delta-crl issuer (%s)", name_line(base_issuer).get(),
         name_line(delta_issuer).get());
  return false;
}

bool has_same_scope(const delta_search &search, const ISSUING_DIST_POINT *idp) {
  const ISSUING_DIST_POINT *base_idp = search.base->idp.get();
  if (!base_idp && idp)
    return refuse("crl contains no IDP, but delta-crl does");
  return ISSUING_DIST_POINT_cmp(base_idp, idp) == 0 || refuse("crl IDP != delta-crl IDP");
}

// Signers are looked for by this extension: what cannot be read was refused with its CRL.
bool has_same_key_id(const delta_search &search, const X509_CRL *delta) {
  authority_keyid_ptr base_id, delta_id;
  if (read_of(search, search.base->got.crl.get(), NID_authority_key_identifier, &base_id) >=
          presence::unreadable ||
      read_of(search, delta, NID_authority_key_identifier, &delta_id) >= presence::unreadable) {
    log_openssl_errors(log_warning);
    return refuse("crl AKID != delta-crl AKID");
  }
  if (!base_id && delta_id)
    return refuse("crl contains no AKID, but delta-crl does");
  return AUTHORITY_KEYID_cmp(base_id.get(), delta_id.get()) == 0 ||
         refuse("crl AKID != delta-crl AKID");
}

bool is_current(const delta_search &search, const X509_CRL *delta) {
  int error = cv_crl_check_update_dates(delta);
  search.out_of_memory = search.out_of_memory || error == PKI_OUT_OF_MEMORY;
  return error == PKI_OK;
}

bool has_key_of_any(const X509 *signer, const STACK_OF(X509) * others) {
  for (int i = 0; signer && i < sk_X509_num(others); i++) {
    const X509 *other = sk_X509_value(others, i);
    if (other && X509_PUBKEY_cmp(X509_get_X509_PUBKEY(signer), X509_get_X509_PUBKEY(other)) == 0)
      return true;
  }
  return false;
}

bool has_same_signer_key(const delta_search &search, const fetched_crl &delta) {
  const STACK_OF(X509) *base_signers = search.base->got.signers.get();
  for (int i = 0; i < sk_X509_num(base_signers); i++)
    if (has_key_of_any(sk_X509_value(base_signers, i), delta.signers.get()))
      return true;
  return refuse("delta-crl signer-key != base-crl signer-key => delta-crl rejected");
}

bool is_delta_of_base(const delta_search &search, const fetched_crl &delta, const char *url) {
  const X509_CRL *crl = delta.crl.get();
  if (!fits_base_number(search, crl, url) || !is_newer(search, crl, url))
    return false;
  issuing_dist_point_ptr idp;
  if (read_of(search, crl, NID_issuing_distribution_point, &idp) >= presence::unreadable)
    refuse_undecodable("IssuingDistributionPoint", "in Delta-CRL from", url);
  return has_same_issuer(search, crl) && has_same_scope(search, idp.get()) &&
         has_same_key_id(search, crl) && is_current(search, crl) &&
         has_same_signer_key(search, delta);
}

// Returns 0; 81 not this one; 2: what it might revoke must not go unsaid.
int try_record(const delta_search &search, const crl_info *record, fetched_crl *delta) {
  int error = cv_get_crl(record, search.asked, {0, true}, delta, search.base_record);
  if (!error && is_delta_of_base(search, *delta, text_or_null(record->url)) &&
      !search.out_of_memory)
    return PKI_OK;
  *delta = fetched_crl();
  return error == PKI_OUT_OF_MEMORY || search.out_of_memory ? PKI_OUT_OF_MEMORY : PKI_NO_ENTRY;
}

}  // namespace

bool made_delta_too(const judged_crl &crl, const X509 *signer) {
  return !crl.delta_signers || has_key_of_any(signer, crl.delta_signers.get());
}

int cv_find_dcrl(STACK *list, const crl_question &asked, const judged_crl &base, fetched_crl *delta,
                 const crl_info *base_record) {
  *delta = fetched_crl();
  delta_search search = {list, asked, &base, base_record, nullptr, false};
  if (int error = read_base_number(&search))
    return error;
  dist_points_ptr points;
  front_records added(list);  // goes before the points that they borrow from
  if (int error = list_freshest(search, &points))
    return error;
  int tried = 0;
  for (int i = 0; i < OPENSSL_sk_num(list) && tried < crl_max_delta_records; i++) {
    const auto *record = static_cast<crl_info *>(OPENSSL_sk_value(list, i));
    if ((record->flags & crl_flag_delta) == 0)
      continue;
    tried++;
    int error = try_record(search, record, delta);
    if (!error)
      syslog(log_debug, "found valid delta-crl");
    if (error != PKI_NO_ENTRY)
      return error;
  }
  syslog(log_debug, "no (valid) delta-crls found");
  return PKI_NO_ENTRY;
}

}  // namespace pki
