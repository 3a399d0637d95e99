// Status rules: adding them, and finding those that apply to a certificate.
#include <libpki/error.h>
#include <libpki/util.h>
#include <openssl/objects.h>

#include "common/locks.h"
#include "common/log.h"
#include "common/ossl_ptr.h"
#include "pki/internal.h"

namespace pki {

namespace {

using status_info_ptr = std::unique_ptr<cert_status_info, free_with<free_cert_status_info>>;

void *share_match_rule(void *rule) {
  return dup_cert_match_rule(static_cast<cert_match_rule *>(rule));
}
void release_match_rule(void *rule) {
  free_cert_match_rule(static_cast<cert_match_rule *>(rule));
}
void *share_crl_info(void *info) {
  return dup_crl_info(static_cast<crl_info *>(info));
}
void release_crl_info(void *info) {
  free_crl_info(static_cast<crl_info *>(info));
}

// A new rule of that mechanism for the certificates that match `rules`.
status_info_ptr make_status_rule(int mechanism, uint32_t flags, const STACK *rules) {
  status_info_ptr made(alloc_cert_status_info_m(mechanism));
  if (!made)
    return nullptr;
  STACK *shared = stack_dup(rules, share_match_rule, release_match_rule);
  if (!shared)
    return nullptr;
  OPENSSL_sk_free(made->rules);
  made->rules = shared;
  made->flags = flags;
  return made;
}

// Takes the rule over, also when it fails.
int add_status_rule(ca_info *info, status_info_ptr rule) {
  mutex_lock lock(&list_mutex);
  STACK *list = info ? info->cert_status_methods : pki_store->global_status_rules;
  if (OPENSSL_sk_push(list, rule.get()) <= 0)
    return PKI_OUT_OF_MEMORY;
  rule.release();
  return PKI_OK;
}

uint32_t status_flags(unsigned char flag0, unsigned char flag1) {
  return flag1 ? flag0 | PKI_STATUS_FLAG1 : flag0;
}

bool serial_in_range(const ASN1_INTEGER *serial, const cert_match_rule *rule) {
  const auto *low = static_cast<const ASN1_INTEGER *>(rule->name_or_low);
  return low && ASN1_STRING_cmp(serial, low) >= 0 &&
         (!rule->high || ASN1_STRING_cmp(serial, rule->high) <= 0);
}

bool match_rule_holds(const cert_match_rule *rule, const X509 *cert) {
  const auto *name = static_cast<const X509_NAME *>(rule->name_or_low);
  switch (rule->type) {
    case PKI_MATCH_ISSUER:
      return name && pki_name_rule_match(X509_get_issuer_name(cert), name);
    case PKI_MATCH_SUBJECT:
      return name && pki_name_rule_match(X509_get_subject_name(cert), name);
    case PKI_MATCH_SERIAL:
      return serial_in_range(X509_get0_serialNumber(cert), rule);
    default:
      return false;
  }
}

bool status_rule_applies(const cert_status_info *info, const X509 *cert) {
  for (int i = 0; i < OPENSSL_sk_num(info->rules); i++)
    if (!match_rule_holds(static_cast<cert_match_rule *>(OPENSSL_sk_value(info->rules, i)), cert))
      return false;
  return true;
}

bool append_applying_rules(const ca_info *info, const X509 *cert, STACK *result) {
  mutex_lock lock(&list_mutex);
  const STACK *list = info ? info->cert_status_methods : pki_store->global_status_rules;
  for (int i = 0; i < OPENSSL_sk_num(list); i++) {
    auto *rule = static_cast<cert_status_info *>(OPENSSL_sk_value(list, i));
    if (!status_rule_applies(rule, cert))
      continue;
    if (OPENSSL_sk_push(result, rule) <= 0)
      return false;
    dup_cert_status_info(rule);
  }
  return true;
}

bool same_entry(const X509_NAME_ENTRY *a, const X509_NAME_ENTRY *b) {
  return OBJ_cmp(X509_NAME_ENTRY_get_object(a), X509_NAME_ENTRY_get_object(b)) == 0 &&
         ASN1_STRING_cmp(X509_NAME_ENTRY_get_data(a), X509_NAME_ENTRY_get_data(b)) == 0;
}

}  // namespace

// The cursor stays on a matching entry: a rule that repeats an attribute matches a name that has
// it once.
bool pki_name_rule_match(const X509_NAME *name, const X509_NAME *rule) {
  int entries = X509_NAME_entry_count(name);
  if (entries < X509_NAME_entry_count(rule))
    return false;
  int cursor = 0;
  for (int i = 0; i < X509_NAME_entry_count(rule); i++) {
    const X509_NAME_ENTRY *wanted = X509_NAME_get_entry(rule, i);
    while (cursor < entries && !same_entry(X509_NAME_get_entry(name, cursor), wanted))
      cursor++;
    if (cursor == entries)
      return false;
  }
  return true;
}

}  // namespace pki

using namespace pki;

int pki_add_aok_info(ca_info *info, const STACK *rules, unsigned char flag) {
  if (!rules)
    return PKI_INVALID_ARGS;
  uint32_t flags = flag ? PKI_STATUS_FLAG0 | PKI_STATUS_FLAG1 : PKI_STATUS_FLAG1;
  status_info_ptr rule = make_status_rule(PKI_STATUS_AOK, flags, rules);
  return log_reasons(rule ? add_status_rule(info, std::move(rule)) : PKI_OUT_OF_MEMORY);
}

int pki_add_crl_info(ca_info *info, const STACK *rules, const STACK *crl_infos, unsigned char flag0,
                     unsigned char flag1) {
  if (!rules || !crl_infos)
    return PKI_INVALID_ARGS;
  status_info_ptr rule = make_status_rule(PKI_STATUS_CRL, status_flags(flag0, flag1), rules);
  STACK *shared = rule ? stack_dup(crl_infos, share_crl_info, release_crl_info) : nullptr;
  if (!shared)
    return log_reasons(PKI_OUT_OF_MEMORY);
  OPENSSL_sk_free(static_cast<STACK *>(rule->data));
  rule->data = shared;
  return log_reasons(add_status_rule(info, std::move(rule)));
}

int pki_add_ocsp_info(ca_info *info, const STACK *rules, const char *url, X509 *responder_cert,
                      unsigned char option, unsigned char flag0, unsigned char flag1) {
  if (!rules || !url)
    return PKI_INVALID_ARGS;
  status_info_ptr rule = make_status_rule(PKI_STATUS_OCSP, status_flags(flag0, flag1), rules);
  if (!rule)
    return log_reasons(PKI_OUT_OF_MEMORY);
  auto *ocsp = static_cast<ocsp_info *>(rule->data);
  ocsp->url = pki_strdup(url);
  if (!ocsp->url)
    return log_reasons(PKI_OUT_OF_MEMORY);
  if (responder_cert && !take_reference(responder_cert))
    return log_reasons(PKI_CRYPTO_LOCK_FAILED);
  ocsp->responder_cert = responder_cert;
  ocsp->option = option;
  return log_reasons(add_status_rule(info, std::move(rule)));
}

int pki_find_sts_query_info(ca_info *info, X509 *cert, STACK *result) {
  if (!cert || !result)
    return PKI_INVALID_ARGS;
  if (append_applying_rules(info, cert, result))
    return PKI_NO_ENTRY;
  return log_reasons(PKI_OUT_OF_MEMORY);
}
