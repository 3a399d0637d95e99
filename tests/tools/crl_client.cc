#include "crl_client.h"

#include <openssl/err.h>

#include "raw_http.h"
#include "tools/common/cert_text.h"

namespace tool_test {

namespace {

using integer_ptr = std::unique_ptr<ASN1_INTEGER, tools::free_with<ASN1_STRING_free>>;
using names_ptr = std::unique_ptr<GENERAL_NAMES, tools::free_with<GENERAL_NAMES_free>>;

std::string octets_of(const ASN1_STRING *string) {
  const unsigned char *octets = ASN1_STRING_get0_data(string);
  return std::string(octets, octets + ASN1_STRING_length(string));
}

X509_REVOKED *entry_at(X509_CRL *crl, int index) {
  return sk_X509_REVOKED_value(X509_CRL_get_REVOKED(crl), index);
}

}  // namespace

crl_ptr decode_crl(const std::string &der) {
  const auto *at = reinterpret_cast<const unsigned char *>(der.data());
  const unsigned char *end = at + der.size();
  crl_ptr crl(d2i_X509_CRL(nullptr, &at, static_cast<long>(der.size())));
  ERR_clear_error();
  return at == end ? std::move(crl) : nullptr;
}

crl_query::crl_query(int port, const std::string &query, const std::string &ca_name)
    : http_(
          tool_test::exchange(port, "GET /crl/" + ca_name + ".crl" + query + " HTTP/1.0\r\n\r\n")),
      crl_(decode_crl(body())) {}

std::string crl_query::body() const {
  return body_of(http_);
}

bool crl_query::is_signed_by(EVP_PKEY *key) const {
  bool good = X509_CRL_verify(crl_.get(), key) == 1;
  ERR_clear_error();
  return good;
}

int crl_query::reason_at(int index) const {
  std::unique_ptr<ASN1_ENUMERATED, tools::free_with<ASN1_STRING_free>> reason(
      static_cast<ASN1_ENUMERATED *>(
          X509_REVOKED_get_ext_d2i(entry_at(crl_.get(), index), NID_crl_reason, nullptr, nullptr)));
  return reason ? static_cast<int>(ASN1_ENUMERATED_get(reason.get())) : -1;
}

std::string crl_query::issuer_at(int index) const {
  names_ptr names(static_cast<GENERAL_NAMES *>(X509_REVOKED_get_ext_d2i(
      entry_at(crl_.get(), index), NID_certificate_issuer, nullptr, nullptr)));
  if (!names)
    return "";
  return tools::name_text(sk_GENERAL_NAME_value(names.get(), 0)->d.directoryName);
}

std::string crl_query::serial_at(int index) const {
  return tools::serial_text(X509_REVOKED_get0_serialNumber(entry_at(crl_.get(), index)));
}

std::vector<std::string> crl_query::serials() const {
  std::vector<std::string> all;
  for (int i = 0; i < sk_X509_REVOKED_num(X509_CRL_get_REVOKED(crl_.get())); i++)
    all.push_back(serial_at(i));
  return all;
}

std::string crl_query::extension(int nid) const {
  int at = X509_CRL_get_ext_by_NID(crl_.get(), nid, -1);
  return at < 0 ? "" : octets_of(X509_EXTENSION_get_data(X509_CRL_get_ext(crl_.get(), at)));
}

bool crl_query::is_critical(int nid) const {
  int at = X509_CRL_get_ext_by_NID(crl_.get(), nid, -1);
  return at >= 0 && X509_EXTENSION_get_critical(X509_CRL_get_ext(crl_.get(), at)) == 1;
}

long crl_query::number(int nid) const {
  integer_ptr value(
      static_cast<ASN1_INTEGER *>(X509_CRL_get_ext_d2i(crl_.get(), nid, nullptr, nullptr)));
  return value ? ASN1_INTEGER_get(value.get()) : -1;
}

std::unique_ptr<ISSUING_DIST_POINT, tools::free_with<ISSUING_DIST_POINT_free>> crl_query::scope()
    const {
  return std::unique_ptr<ISSUING_DIST_POINT, tools::free_with<ISSUING_DIST_POINT_free>>(
      static_cast<ISSUING_DIST_POINT *>(
          X509_CRL_get_ext_d2i(crl_.get(), NID_issuing_distribution_point, nullptr, nullptr)));
}

std::string uri_of(const DIST_POINT_NAME *name, int index) {
  if (!name || name->type != 0)
    return "";
  const GENERAL_NAME *general = sk_GENERAL_NAME_value(name->name.fullname, index);
  return general && general->type == GEN_URI ? octets_of(general->d.uniformResourceIdentifier) : "";
}

}  // namespace tool_test
