// CRLs, and PKCS#7 messages around them, put together octet by octet: every field can be left out,
// replaced by other octets, or stand twice.
#ifndef TESTS_SUPPORT_CRL_DER_H
#define TESTS_SUPPORT_CRL_DER_H

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "support/certs.h"

namespace support {

// ---- DER ----

// A length in the shortest form; or the long form with exactly that many length octets.
std::string der_length(uint64_t length, int octets = 0);
std::string der_tlv(unsigned char tag, const std::string &content);
// An INTEGER; the second has these content octets, whatever they are.
std::string der_integer(long value);
std::string der_integer(const std::string &content);
// A dotted OID or a name that OpenSSL knows.
std::string der_oid(const std::string &oid);
std::string der_utc_time(time_t time);
std::string der_generalized_time(time_t time);
std::string der_name(const name &of);
std::string der_name(const std::string &common_name);
// An AlgorithmIdentifier, with NULL parameters or without any.
std::string der_algorithm(const std::string &oid, bool null_parameters = true);
// A BIT STRING of ReasonFlags: bit n of the mask is bit n of the string.
std::string der_reasons(unsigned mask, unsigned char tag = 0x03);
// GeneralNames.
std::string der_uri(const std::string &uri);
std::string der_directory_name(const std::string &common_name);

// ---- extensions, of CRLs and of entries ----

// `value` is what the OCTET STRING holds.
std::string crl_extension(const std::string &oid, const std::string &value, bool critical = false);
std::string crl_number(long number, bool critical = false);
std::string delta_crl_indicator(long base_number, bool critical = true);
std::string freshest_crl(const std::vector<std::string> &uris);
std::string unknown_extension(bool critical);  // 1.3.6.1.4.1.32473.77
inline const char *const unknown_extension_oid = "1.3.6.1.4.1.32473.77";

struct idp_fields {
  std::vector<std::string> uris = {};    // of a full name, unless `dist_point` is given
  std::string dist_point = {};           // the DistributionPointName with its [0]
  bool user_certs = false;               // onlyContainsUserCerts
  bool ca_certs = false;                 // onlyContainsCACerts
  std::optional<unsigned> reasons = {};  // onlySomeReasons, as a mask
  bool indirect = false;                 // indirectCRL
  bool attribute_certs = false;          // onlyContainsAttributeCerts
};
std::string issuing_dist_point(const idp_fields &fields, bool critical = true);

struct akid_fields {
  std::optional<std::string> key_id = {};  // its octets
  std::string issuer = {};                 // GeneralName encodings
  std::optional<std::string> serial = {};  // its octets
};
std::string authority_key_id(const akid_fields &fields, bool critical = false);

std::string reason_code(int reason, bool critical = false);
std::string certificate_issuer(const std::string &common_name, bool critical = false);

// ---- entries ----

constexpr time_t crl_der_now = 1'700'000'000;  // where tests freeze the clock

// `extensions`: concatenated; none leaves crlEntryExtensions out.
std::string crl_entry(const std::string &serial_octets, const std::string &extensions = "",
                      const std::string &date = der_utc_time(crl_der_now - 86400));
std::string crl_entry(long serial, const std::string &extensions = "");

// ---- the CRL ----

enum class crl_signing { rsa_sha256, rsa_sha1, rsa_md5, ecdsa_sha256 };

// Every string is an encoding; an empty one is left out.
struct crl_fields {
  std::string version = der_integer(1);
  std::optional<std::string> algorithm = {};        // default: that of `signing`
  std::optional<std::string> outer_algorithm = {};  // default: the same
  std::string issuer = der_name("issuer");
  std::string this_update = der_utc_time(crl_der_now - 3600);
  std::string next_update = der_utc_time(crl_der_now + 7 * 86400);
  std::optional<std::string> entries = {};             // concatenated; none: no revokedCertificates
  std::string extensions = {};                         // concatenated; none: no crlExtensions
  std::optional<std::string> extensions_element = {};  // instead, with its [0]
  std::string behind_tbs_fields = {};                  // more octets at the end of tbsCertList
  std::string behind_signature = {};                   // more octets at the end of CertificateList
  crl_signing signing = crl_signing::rsa_sha256;
  key signing_key = {};                       // default: test_key(0), or an EC key of the process
  std::optional<std::string> signature = {};  // the BIT STRING, instead
};
std::string tbs_cert_list(const crl_fields &fields);
std::string crl_octets(const crl_fields &fields = {});
// The EC key that signs by default.
key crl_ec_key();
// `signed_octets` with the signature and the algorithm around it.
std::string sign_tbs(const std::string &tbs, const crl_fields &fields);

// ---- PKCS#7 ----

// Every string is an encoding; an empty one is left out.
struct crl_pkcs7_fields {
  std::string content_type = der_oid("1.2.840.113549.1.7.2");  // signedData
  std::string version = der_integer(1);
  std::string digest_algorithms = der_tlv(0x31, "");
  std::string content = der_tlv(0x30, der_oid("1.2.840.113549.1.7.1"));  // data, none
  std::optional<std::string> certificates = {};                          // concatenated
  std::optional<std::string> crls = {};  // concatenated, instead of the one
  std::string signers = der_tlv(0x31, "");
};
std::string pkcs7_octets(const std::string &bare_crl, const crl_pkcs7_fields &fields = {});

}  // namespace support

#endif
