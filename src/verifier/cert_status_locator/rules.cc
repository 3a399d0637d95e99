// Configured sources: the status rules of the store that apply to the certificate.
#include <libpki/error.h>
#include <libpki/store.h>

#include "common/log.h"
#include "verifier/cert_status.h"
#include "verifier/cert_status_locator/internal.h"

namespace pki {

namespace {

struct pass {
  cert_sts_locator_list *list;
  int crl_locators = 0;
  int ocsp_locators = 0;
  int always_ok_locators = 0;
};

// Owners of the two lists that the store hands out.
struct release_ca_infos {
  void operator()(STACK *list) const { free_ca_infos(list); }
};
struct release_rules {
  void operator()(STACK *list) const {
    while (OPENSSL_sk_num(list) > 0)
      free_cert_status_info(static_cast<cert_status_info *>(OPENSSL_sk_pop(list)));
    OPENSSL_sk_free(list);
  }
};
using ca_infos_ptr = std::unique_ptr<STACK, release_ca_infos>;
using rules_ptr = std::unique_ptr<STACK, release_rules>;

// Every rule that applies: those of each CA in the store's order, then the global ones.
int collect_rules(X509 *cert, rules_ptr *out) {
  rules_ptr rules(OPENSSL_sk_new_null());
  ca_infos_ptr cas(pki_get_all_ca_infos());
  if (!rules || !cas)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  for (int i = 0; i <= OPENSSL_sk_num(cas.get()); i++) {
    // Behind the last CA: null, the global rules.
    auto *ca = static_cast<ca_info *>(OPENSSL_sk_value(cas.get(), i));
    int error = pki_find_sts_query_info(ca, cert, rules.get());
    if (error && error != PKI_NO_ENTRY)
      return error;
  }
  *out = std::move(rules);
  return PKI_OK;
}

bool is_of_pass(const cert_status_info *rule, bool before) {
  return ((rule->flags & PKI_STATUS_FLAG0) == 0) == before;
}

int is_final(const cert_status_info *rule) {
  return (rule->flags & PKI_STATUS_FLAG1) != 0 ? 1 : 0;
}

int add_configured_ocsp(pass *now, const cert_status_info *rule) {
  const auto *ocsp = static_cast<ocsp_info *>(rule->data);
  int error = ocsp ? cv_csl_add_ocsp_url(now->list, ocsp->url, ocsp->responder_cert,
                                         ocsp->option & 1, is_final(rule))
                   : PKI_INVALID_ARGS;
  if (error)
    syslog(log_error, "failed to add ocsp locator to list: %s",
           pki_strerror(static_cast<unsigned>(error)));
  else
    now->ocsp_locators++;
  return error;
}

int add_crls(pass *now, const cert_status_info *rule) {
  if (!rule->data)
    return PKI_INVALID_ARGS;
  cert_sts_locator_ptr locator(
      make_locator(zv_cv_crl_get_sts_info, is_final(rule) != 0, sizeof(crls_locator)));
  if (!locator)
    return PKI_OUT_OF_MEMORY;
  auto *data = static_cast<crls_locator *>(locator->data);
  data->type = locator_crls;
  data->crls = share_crl_infos(static_cast<STACK *>(rule->data));
  if (!data->crls)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  int error = cv_csl_add(now->list, locator.get());
  if (!error)
    (void)locator.release();
  return error;
}

int add_configured_crls(pass *now, const cert_status_info *rule) {
  int error = add_crls(now, rule);
  if (error)
    syslog(log_error, "failed to add CRL locator to list: %s",
           pki_strerror(static_cast<unsigned>(error)));
  else
    now->crl_locators++;
  return error;
}

int add_always_ok(pass *now, const cert_status_info *rule) {
  cert_sts_locator_ptr locator(make_locator(zv_cv_cs_always_ok, is_final(rule) != 0, 0));
  int error = locator ? cv_csl_add(now->list, locator.get()) : PKI_OUT_OF_MEMORY;
  if (error) {
    syslog(log_error, "failed to add always-ok locator to list: %s",
           pki_strerror(static_cast<unsigned>(error)));
    return error;
  }
  (void)locator.release();
  now->always_ok_locators++;
  return PKI_OK;
}

int add_by_method(pass *now, const cert_status_info *rule) {
  switch (rule->mechanism) {
    case PKI_STATUS_OCSP:
      return add_configured_ocsp(now, rule);
    case PKI_STATUS_CRL:
      return add_configured_crls(now, rule);
    case PKI_STATUS_AOK:
      return add_always_ok(now, rule);
    default:
      syslog(log_warning, "found unknown status-query method %d in local config", rule->mechanism);
      return PKI_OK;
  }
}

const cert_status_info *rule_at(const STACK *rules, int index) {
  return static_cast<cert_status_info *>(OPENSSL_sk_value(rules, index));
}

bool has_final_rule(const STACK *rules, int from, bool before) {
  for (int i = from; i < OPENSSL_sk_num(rules); i++)
    if (is_of_pass(rule_at(rules, i), before) && is_final(rule_at(rules, i)))
      return true;
  return false;
}

int add_rules(pass *now, const STACK *rules, bool before) {
  for (int i = 0; i < OPENSSL_sk_num(rules); i++) {
    if (!is_of_pass(rule_at(rules, i), before))
      continue;
    if (int error = add_by_method(now, rule_at(rules, i))) {
      now->list->closed = has_final_rule(rules, i, before);
      return error;
    }
  }
  return PKI_OK;
}

int count_of_pass(const STACK *rules, bool before) {
  int count = 0;
  for (int i = 0; i < OPENSSL_sk_num(rules); i++)
    count += is_of_pass(rule_at(rules, i), before);
  return count;
}

}  // namespace

int cv_csl_find_loc_in_config(X509 *cert, cert_sts_locator_list *list, bool before) {
  rules_ptr rules;
  if (int error = collect_rules(cert, &rules)) {
    syslog(log_error, "failed to collect local-config entries: %s",
           pki_strerror(static_cast<unsigned>(error)));
    // Who knows what the rules say.
    list->closed = true;
    return error;
  }
  syslog(log_debug, "found %d acceptable local-config entries (out of %d)",
         count_of_pass(rules.get(), before), OPENSSL_sk_num(rules.get()));
  pass now = {list};
  int error = add_rules(&now, rules.get(), before);
  syslog(log_debug, "created %d crl locators, %d ocsp locators, and %d always-ok locators",
         now.crl_locators, now.ocsp_locators, now.always_ok_locators);
  return error;
}

}  // namespace pki
