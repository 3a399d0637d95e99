#include "tools/pkictl/report.h"

#include <ctime>

#include "tools/common/cert_text.h"

namespace pkictl {

namespace {

json text_or_null(const char *text) {
  return text ? json(text) : json(nullptr);
}

// Applies `make` to each element of a list of T; null elements cannot be.
template <class T, class Make>
json list_json(const STACK *list, Make make) {
  json made = json::array();
  for (int i = 0; i < OPENSSL_sk_num(list); i++)
    made.push_back(make(static_cast<T *>(OPENSSL_sk_value(list, i))));
  return made;
}

}  // namespace

json cert_json(X509 *cert) {
  if (!cert)
    return nullptr;
  return {{"subject", tools::name_text(X509_get_subject_name(cert))},
          {"issuer", tools::name_text(X509_get_issuer_name(cert))},
          {"serial", tools::serial_text(X509_get0_serialNumber(cert))},
          {"not_before", tools::time_text(X509_get0_notBefore(cert))},
          {"not_after", tools::time_text(X509_get0_notAfter(cert))},
          {"sha256", tools::fingerprint_text(cert)}};
}

namespace {

json enrollment_json(cert_req_info *method) {
  if (method->mechanism != PKI_CERT_REQ_SCEP)
    return {{"mechanism", method->mechanism}};
  const auto *scep = static_cast<scep_req_info *>(method->data);
  return {{"mechanism", "SCEP"},
          {"url", text_or_null(scep->url)},
          {"digest", text_or_null(scep->digest)},
          {"cipher", text_or_null(scep->cipher)},
          {"ca_cert", cert_json(scep->ca_cert)}};
}

json look_up_json(cert_query_info *method) {
  if (method->mechanism == PKI_CERT_QUERY_SCEP) {
    const auto *scep = static_cast<scep_query_info *>(method->data);
    return {{"mechanism", "SCEP"},
            {"url", text_or_null(scep->url)},
            {"ca_cert", cert_json(scep->ca_cert)}};
  }
  if (method->mechanism == PKI_CERT_QUERY_LDAP)
    return {{"mechanism", "LDAP"},
            {"url", text_or_null(static_cast<ldap_query_info *>(method->data)->url)}};
  return {{"mechanism", method->mechanism}};
}

json status_json(cert_status_info *method) {
  if (method->mechanism != PKI_STATUS_OCSP)
    return {{"mechanism", method->mechanism}};
  const auto *ocsp = static_cast<ocsp_info *>(method->data);
  return {{"mechanism", "OCSP"}, {"url", text_or_null(ocsp->url)}};
}

json expiry_json(const struct tm &expires) {
  char text[32];
  // The library fills the fields one by one, so only a set zone means that it read them all.
  bool complete = expires.tm_zone != nullptr;
  if (!complete || strftime(text, sizeof text, "%Y-%m-%d %H:%M:%SZ", &expires) == 0)
    return nullptr;
  return text;
}

}  // namespace

json ca_json(const ca_info *info, const STACK *additional_certs) {
  json ca;
  ca["label"] = text_or_null(info->label);
  ca["url"] = text_or_null(info->ca_pointer_url);
  ca["issuer"] = info->issuer_name ? json(tools::name_text(info->issuer_name)) : json(nullptr);
  ca["expires"] = expiry_json(info->expires);
  ca["cert_req_methods"] = list_json<cert_req_info>(info->cert_req_methods, enrollment_json);
  ca["cert_lookup_methods"] = list_json<cert_query_info>(info->cert_lookup_methods, look_up_json);
  ca["cert_status_methods"] = list_json<cert_status_info>(info->cert_status_methods, status_json);
  ca["trusted_roots"] = list_json<X509>(info->trusted_roots, cert_json);
  ca["additional_certs"] = list_json<X509>(additional_certs, cert_json);
  return ca;
}

}  // namespace pkictl
