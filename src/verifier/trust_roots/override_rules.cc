// Status rules for what the built-in roots issued.
#include <libpki/error.h>
#include <libpki/names.h>
#include <libpki/store.h>
#include <syslog.h>

#include "common/alloc.h"
#include "common/log.h"
#include "common/ossl_ptr.h"
#include "verifier/trust_roots/internal.h"

namespace pki {

namespace {

using match_rule_ptr = std::unique_ptr<cert_match_rule, free_with<free_cert_match_rule>>;
using crl_info_ptr = std::unique_ptr<crl_info, free_with<free_crl_info>>;

constexpr uint32_t all_reasons = 511;
// After the certificate's own sources.
constexpr unsigned char flag0 = 1;
// Of an issuer without a text of its own, in the log.
constexpr int issuer_text_bytes = 256;

int failed_allocation(const char *what) {
  syslog(log_error, "%s", what);
  return log_reasons(PKI_OUT_OF_MEMORY);
}

int no_lists() {
  return failed_allocation("add_cert_sts_info: failed alloc rules or crls");
}

// A rule matches every name that has the entries of its own: without any, it would match all.
int issuer_of(const override_rule &rule, X509 *const *certs, x509_name_ptr *name) {
  X509_NAME *made = nullptr;
  int error = PKI_OK;
  if (rule.issuer)
    error = parse_rfc1779_str(rule.issuer, &made);
  else if (!(made = X509_NAME_dup(X509_get_subject_name(certs[0]))))
    error = PKI_OUT_OF_MEMORY;
  name->reset(made);
  if (error)
    return error;
  return X509_NAME_entry_count(made) > 0 ? PKI_OK : PKI_DN_NO_VALUE;
}

int bad_issuer(const override_rule &rule, X509 *const *certs, int error) {
  char subject[issuer_text_bytes] = "";
  if (!rule.issuer)
    X509_NAME_oneline(X509_get_subject_name(certs[0]), subject, sizeof subject);
  syslog(log_error, "failed to parse issuer '%s': %s", rule.issuer ? rule.issuer : subject,
         pki_strerror(static_cast<unsigned>(error)));
  return log_reasons(error);
}

int make_issuer_rule(const override_rule &rule, X509 *const *certs, match_rule_ptr *made) {
  made->reset(alloc_cert_match_rule());
  if (!*made)
    return failed_allocation("add_cert_sts_info: failed alloc match rule");
  (*made)->type = PKI_MATCH_ISSUER;
  x509_name_ptr name;
  if (int error = issuer_of(rule, certs, &name))
    return bad_issuer(rule, certs, error);
  (*made)->name_or_low = name.release();
  return PKI_OK;
}

int add_crl_rule(ca_info *info, const override_rule &rule, X509 *const *certs, STACK *rules,
                 STACK *crls) {
  X509 *signer = rule.signer == no_signer ? nullptr : certs[rule.signer];
  crl_info_ptr crl(create_crl_info(rule.url, 0, all_reasons, 0, nullptr, signer));
  if (!crl || OPENSSL_sk_push(crls, crl.get()) <= 0)
    return PKI_OUT_OF_MEMORY;
  int error = pki_add_crl_info(info, rules, crls, flag0, 0);
  OPENSSL_sk_pop(crls);
  return error;
}

int add_rule_of_method(ca_info *info, const override_rule &rule, X509 *const *certs, STACK *rules,
                       STACK *crls, const char **kind) {
  switch (rule.method) {
    case override_crl:
      *kind = "crl";
      return add_crl_rule(info, rule, certs, rules, crls);
    case override_ocsp:
      *kind = "ocsp";
      return pki_add_ocsp_info(info, rules, rule.url, nullptr, 0, flag0, 0);
    case override_always_ok:
      *kind = "aok";
      return pki_add_aok_info(info, rules, flag0);
    default:
      return PKI_OK;
  }
}

int add_override_rule(ca_info *info, const override_rule &rule, X509 *const *certs, STACK *rules,
                      STACK *crls) {
  match_rule_ptr match;
  if (int error = make_issuer_rule(rule, certs, &match))
    return error;
  if (OPENSSL_sk_push(rules, match.get()) <= 0)
    return no_lists();
  const char *kind = "";
  int error = add_rule_of_method(info, rule, certs, rules, crls, &kind);
  OPENSSL_sk_pop(rules);
  if (error)
    syslog(log_error, "failed to add %s info to root '%s': %s", kind, text_or_null(info->label),
           pki_strerror(static_cast<unsigned>(error)));
  return log_reasons(error);
}

}  // namespace

int add_cert_sts_info(ca_info *info, const override_rule *rules, int count, X509 *const *certs) {
  if (!info) {
    syslog(log_error, "add_cert_sts_info bad params");
    return PKI_NO_SUCH_CA;
  }
  stack_ptr match_rules(OPENSSL_sk_new_null());
  stack_ptr crls(OPENSSL_sk_new_null());
  if (!match_rules || !crls)
    return no_lists();
  for (int row = 0; row < count; row++)
    if (int error = add_override_rule(info, rules[row], certs, match_rules.get(), crls.get()))
      return error;
  return PKI_OK;
}

}  // namespace pki
