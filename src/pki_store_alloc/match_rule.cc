#include "pki_store_alloc/internal.h"

using namespace pki;

cert_match_rule *alloc_cert_match_rule(void) {
  return make_record<cert_match_rule>();
}

void free_cert_match_rule(cert_match_rule *rule) {
  if (!rule || !drop_reference(rule))
    return;
  switch (rule->type) {
    case PKI_MATCH_ISSUER:
    case PKI_MATCH_SUBJECT:
      X509_NAME_free(static_cast<X509_NAME *>(rule->name_or_low));
      break;
    case PKI_MATCH_SERIAL:
      ASN1_INTEGER_free(static_cast<ASN1_INTEGER *>(rule->name_or_low));
      ASN1_INTEGER_free(rule->high);
      break;
    default:
      syslog(log_error, "unsupported rule type %d", rule->type);
  }
  std::free(rule);
}

cert_match_rule *dup_cert_match_rule(cert_match_rule *rule) {
  return dup_record(rule);
}
