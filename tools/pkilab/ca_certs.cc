#include "tools/pkilab/ca_certs.h"

#include <openssl/err.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include "tools/common/failure.h"
#include "tools/common/keys.h"
#include "tools/pkilab/day.h"

namespace pkilab {

namespace {

void require(bool done, const char *what) {
  if (!done)
    throw tools::failure(std::string("cannot ") + what + ": " + tools::openssl_reason());
}

bool set_random_serial(X509 *cert) {
  unsigned char octets[8];
  if (RAND_bytes(octets, sizeof octets) != 1)
    return false;
  uint64_t number = 1;  // never zero
  for (unsigned char octet : octets)
    number = (number << 8 | octet) & INT64_MAX;
  return ASN1_INTEGER_set_uint64(X509_get_serialNumber(cert), number | 1) == 1;
}

bool set_subject(X509 *cert, const std::string &common_name) {
  X509_NAME *name = X509_get_subject_name(cert);
  auto add = [name](const char *field, const std::string &value) {
    return X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8,
                                      reinterpret_cast<const unsigned char *>(value.c_str()), -1,
                                      -1, 0) == 1;
  };
  return add("O", "pkilab") && add("CN", common_name);
}

bool add_extension(X509 *cert, X509 *issuer, int nid, const char *value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION *extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
  bool added = extension && X509_add_ext(cert, extension, -1) == 1;
  X509_EXTENSION_free(extension);
  return added;
}

bool add_extensions(X509 *cert, X509 *issuer) {
  // The SCEP CA's key also opens requests and signs answers.
  const char *usage = "critical,keyCertSign,cRLSign,digitalSignature,keyEncipherment";
  return add_extension(cert, issuer, NID_basic_constraints, "critical,CA:TRUE") &&
         add_extension(cert, issuer, NID_key_usage, usage) &&
         add_extension(cert, issuer, NID_subject_key_identifier, "hash") &&
         add_extension(cert, issuer, NID_authority_key_identifier, "keyid");
}

// OpenSSL's text form of this extension would read commas in a URL as separators.
bool add_ocsp_urls(X509 *cert, const std::vector<std::string> &urls) {
  if (urls.empty())
    return true;
  std::unique_ptr<AUTHORITY_INFO_ACCESS, tools::free_with<AUTHORITY_INFO_ACCESS_free>> list(
      AUTHORITY_INFO_ACCESS_new());
  for (const std::string &url : urls) {
    ACCESS_DESCRIPTION *entry = ACCESS_DESCRIPTION_new();
    ASN1_IA5STRING *text = ASN1_IA5STRING_new();
    if (!list || !entry || !text || ASN1_STRING_set(text, url.c_str(), -1) != 1 ||
        sk_ACCESS_DESCRIPTION_push(list.get(), entry) < 1) {
      ACCESS_DESCRIPTION_free(entry);
      ASN1_IA5STRING_free(text);
      return false;
    }
    entry->method = OBJ_nid2obj(NID_ad_OCSP);
    GENERAL_NAME_set0_value(entry->location, GEN_URI, text);
  }
  return X509_add1_ext_i2d(cert, NID_info_access, list.get(), 0, X509V3_ADD_DEFAULT) == 1;
}

bool set_crl_issuer(DIST_POINT *point, const X509_NAME *issuer) {
  if (!issuer)
    return true;
  X509_NAME *copy = X509_NAME_dup(issuer);
  GENERAL_NAME *name = GENERAL_NAME_new();
  point->CRLissuer = GENERAL_NAMES_new();
  if (!copy || !name || !point->CRLissuer || sk_GENERAL_NAME_push(point->CRLissuer, name) < 1) {
    X509_NAME_free(copy);
    GENERAL_NAME_free(name);
    return false;
  }
  GENERAL_NAME_set0_value(name, GEN_DIRNAME, copy);
  return true;
}

// Null when memory ran out.
DIST_POINT *make_point(const std::string &url) {
  DIST_POINT *point = DIST_POINT_new();
  GENERAL_NAME *name = GENERAL_NAME_new();
  ASN1_IA5STRING *text = ASN1_IA5STRING_new();
  GENERAL_NAMES *names = GENERAL_NAMES_new();
  DIST_POINT_NAME *place = DIST_POINT_NAME_new();
  bool made = point && name && text && names && place &&
              ASN1_STRING_set(text, url.c_str(), -1) == 1 && sk_GENERAL_NAME_push(names, name) > 0;
  if (!made) {
    DIST_POINT_free(point);
    GENERAL_NAME_free(name);
    ASN1_IA5STRING_free(text);
    sk_GENERAL_NAME_free(names);
    DIST_POINT_NAME_free(place);
    return nullptr;
  }
  GENERAL_NAME_set0_value(name, GEN_URI, text);
  place->type = 0;
  place->name.fullname = names;
  point->distpoint = place;
  return point;
}

bool add_crl_urls(X509 *cert, int nid, const std::vector<std::string> &urls,
                  const X509_NAME *crl_issuer) {
  if (urls.empty())
    return true;
  std::unique_ptr<CRL_DIST_POINTS, tools::free_with<CRL_DIST_POINTS_free>> list(
      CRL_DIST_POINTS_new());
  for (const std::string &url : urls) {
    DIST_POINT *point = list ? make_point(url) : nullptr;
    if (!point || !set_crl_issuer(point, crl_issuer) || sk_DIST_POINT_push(list.get(), point) < 1) {
      DIST_POINT_free(point);
      return false;
    }
  }
  return X509_add1_ext_i2d(cert, nid, list.get(), 0, X509V3_ADD_DEFAULT) == 1;
}

bool add_device_extensions(X509 *cert, X509 *issuer, const cert_wishes &wishes) {
  return add_extension(cert, issuer, NID_basic_constraints, "critical,CA:FALSE") &&
         add_extension(cert, issuer, NID_key_usage, ("critical," + wishes.key_usage).c_str()) &&
         add_extension(cert, issuer, NID_subject_key_identifier, "hash") &&
         add_extension(cert, issuer, NID_authority_key_identifier, "keyid") &&
         add_ocsp_urls(cert, wishes.ocsp_urls) &&
         add_crl_urls(cert, NID_crl_distribution_points, wishes.crl_urls, wishes.crl_issuer) &&
         add_crl_urls(cert, NID_freshest_crl, wishes.freshest_crl_urls, wishes.crl_issuer) &&
         (wishes.alt_names.empty() ||
          add_extension(cert, issuer, NID_subject_alt_name, wishes.alt_names.c_str())) &&
         (!wishes.ocsp_signing || add_extension(cert, issuer, NID_ext_key_usage, "OCSPSigning")) &&
         (!wishes.ocsp_no_check ||
          add_extension(cert, issuer, NID_id_pkix_OCSP_noCheck, "ignored"));
}

bool set_times(X509 *cert, const cert_wishes &wishes) {
  time_t now = time(nullptr);
  return ASN1_TIME_set(X509_getm_notBefore(cert), wishes.not_before.value_or(now - day)) &&
         ASN1_TIME_set(X509_getm_notAfter(cert), wishes.not_after.value_or(now + 365 * day));
}

}  // namespace

tools::key_ptr make_rsa_key(int bits) {
  tools::key_ptr key(EVP_RSA_gen(static_cast<unsigned>(bits)));
  require(key != nullptr, "make a key");
  return key;
}

tools::cert_ptr make_ca_cert(EVP_PKEY *key, const std::string &common_name, X509 *signer_cert,
                             EVP_PKEY *signer_key) {
  tools::cert_ptr cert(X509_new());
  require(cert && X509_set_version(cert.get(), X509_VERSION_3) == 1 &&
              set_random_serial(cert.get()) && set_subject(cert.get(), common_name) &&
              X509_set_pubkey(cert.get(), key) == 1,
          "make a certificate");
  X509 *issuer = signer_cert ? signer_cert : cert.get();
  require(X509_set_issuer_name(cert.get(), X509_get_subject_name(issuer)) == 1 &&
              X509_gmtime_adj(X509_getm_notBefore(cert.get()), -day) &&
              X509_gmtime_adj(X509_getm_notAfter(cert.get()), 3650 * day) &&
              add_extensions(cert.get(), issuer),
          "fill a certificate");
  require(X509_sign(cert.get(), signer_key ? signer_key : key, EVP_sha256()) > 0,
          "sign a certificate");
  return cert;
}

void require_alt_names(const std::string &names) {
  tools::cert_ptr none(X509_new());
  require(none != nullptr, "make a certificate");
  bool read =
      names.empty() || add_extension(none.get(), none.get(), NID_subject_alt_name, names.c_str());
  ERR_clear_error();
  if (!read)
    throw tools::usage_failure("cannot read the names " + names +
                               "; write them as in DNS:localhost,IP:127.0.0.1");
}

tools::cert_ptr make_device_cert(const cert_wishes &wishes, X509 *signer_cert,
                                 EVP_PKEY *signer_key) {
  tools::cert_ptr cert(X509_new());
  require(
      cert && X509_set_version(cert.get(), X509_VERSION_3) == 1 && set_random_serial(cert.get()) &&
          X509_set_subject_name(cert.get(), wishes.subject) == 1 &&
          X509_set_pubkey(cert.get(), wishes.public_key) == 1 &&
          X509_set_issuer_name(cert.get(), X509_get_subject_name(signer_cert)) == 1 &&
          set_times(cert.get(), wishes) && add_device_extensions(cert.get(), signer_cert, wishes),
      "fill a certificate");
  require(X509_sign(cert.get(), signer_key, EVP_sha256()) > 0, "sign a certificate");
  return cert;
}

}  // namespace pkilab
