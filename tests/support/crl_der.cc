#include "support/crl_der.h"

#include <openssl/evp.h>

#include <cstdlib>

#include "support/need.h"

namespace support {

namespace {

// YYYYMMDDhhmmssZ
std::string time_text(time_t time) {
  tm parts = {};
  gmtime_r(&time, &parts);
  char text[32];
  size_t size = strftime(text, sizeof text, "%Y%m%d%H%M%SZ", &parts);
  return std::string(text, size);
}

std::string unless_empty(unsigned char tag, const std::string &content) {
  return content.empty() ? "" : der_tlv(tag, content);
}

std::string flag(unsigned char tag, bool value) {
  return value ? der_tlv(tag, "\xff") : "";
}

std::string signing_algorithm(crl_signing signing) {
  switch (signing) {
    case crl_signing::rsa_sha256:
      return der_algorithm("1.2.840.113549.1.1.11");
    case crl_signing::rsa_sha1:
      return der_algorithm("1.2.840.113549.1.1.5");
    case crl_signing::rsa_md5:
      return der_algorithm("1.2.840.113549.1.1.4");
    default:
      return der_algorithm("1.2.840.10045.4.3.2", false);
  }
}

const EVP_MD *signing_digest(crl_signing signing) {
  switch (signing) {
    case crl_signing::rsa_sha1:
      return EVP_sha1();
    case crl_signing::rsa_md5:
      return EVP_md5();
    default:
      return EVP_sha256();
  }
}

std::string signature_over(const std::string &tbs, const crl_fields &fields) {
  key pair = fields.signing_key;
  if (!pair)
    pair = fields.signing == crl_signing::ecdsa_sha256 ? crl_ec_key() : test_key(0);
  EVP_MD_CTX *context = EVP_MD_CTX_new();
  need(EVP_DigestSignInit(context, nullptr, signing_digest(fields.signing), nullptr, pair.get()) ==
           1,
       "EVP_DigestSignInit");
  const auto *in = reinterpret_cast<const unsigned char *>(tbs.data());
  size_t size = 0;
  need(EVP_DigestSign(context, nullptr, &size, in, tbs.size()) == 1, "EVP_DigestSign");
  std::string made(size, '\0');
  need(EVP_DigestSign(context, reinterpret_cast<unsigned char *>(made.data()), &size, in,
                      tbs.size()) == 1,
       "EVP_DigestSign");
  EVP_MD_CTX_free(context);
  made.resize(size);
  return made;
}

}  // namespace

std::string der_length(uint64_t length, int octets) {
  std::string big_endian;
  for (uint64_t left = length; left > 0; left >>= 8)
    big_endian.insert(big_endian.begin(), static_cast<char>(left & 0xff));
  if (octets == 0 && length < 0x80)
    return std::string(1, static_cast<char>(length));
  size_t wanted = octets ? static_cast<size_t>(octets) : big_endian.size();
  if (big_endian.size() < wanted)
    big_endian.insert(0, wanted - big_endian.size(), '\0');
  return static_cast<char>(0x80 | wanted) + big_endian;
}

std::string der_tlv(unsigned char tag, const std::string &content) {
  return static_cast<char>(tag) + der_length(content.size()) + content;
}

std::string der_integer(long value) {
  integer made = make_serial(value);
  return encode(made.get(), i2d_ASN1_INTEGER);
}

std::string der_integer(const std::string &content) {
  return der_tlv(0x02, content);
}

std::string der_oid(const std::string &oid) {
  ASN1_OBJECT *object = OBJ_txt2obj(oid.c_str(), 0);
  need(object != nullptr, "OBJ_txt2obj");
  std::string made = encode(object, i2d_ASN1_OBJECT);
  ASN1_OBJECT_free(object);
  return made;
}

std::string der_utc_time(time_t time) {
  return der_tlv(0x17, time_text(time).substr(2));
}

std::string der_generalized_time(time_t time) {
  return der_tlv(0x18, time_text(time));
}

std::string der_name(const name &of) {
  return encode(of.get(), i2d_X509_NAME);
}

std::string der_name(const std::string &common_name) {
  return der_name(support::common_name(common_name));
}

std::string der_algorithm(const std::string &oid, bool null_parameters) {
  return der_tlv(0x30, der_oid(oid) + (null_parameters ? der_tlv(0x05, "") : ""));
}

std::string der_reasons(unsigned mask, unsigned char tag) {
  std::string bits;
  int unused = 0;
  for (int bit = 0; bit < 9; bit++) {
    if (!(mask >> bit & 1))
      continue;
    bits.resize(static_cast<size_t>(bit) / 8 + 1);
    bits.back() = static_cast<char>(bits.back() | 0x80 >> bit % 8);
    unused = 7 - bit % 8;
  }
  return der_tlv(tag, static_cast<char>(unused) + bits);
}

std::string der_uri(const std::string &uri) {
  return der_tlv(0x86, uri);
}

std::string der_directory_name(const std::string &common_name) {
  return der_tlv(0xA4, der_name(common_name));
}

std::string crl_extension(const std::string &oid, const std::string &value, bool critical) {
  return der_tlv(0x30, der_oid(oid) + flag(0x01, critical) + der_tlv(0x04, value));
}

std::string crl_number(long number, bool critical) {
  return crl_extension("2.5.29.20", der_integer(number), critical);
}

std::string delta_crl_indicator(long base_number, bool critical) {
  return crl_extension("2.5.29.27", der_integer(base_number), critical);
}

std::string freshest_crl(const std::vector<std::string> &uris) {
  std::string points;
  for (const std::string &uri : uris)
    points += der_tlv(0x30, der_tlv(0xA0, der_tlv(0xA0, der_uri(uri))));
  return crl_extension("2.5.29.46", der_tlv(0x30, points));
}

std::string unknown_extension(bool critical) {
  return crl_extension(unknown_extension_oid, der_tlv(0x05, ""), critical);
}

std::string issuing_dist_point(const idp_fields &fields, bool critical) {
  std::string names;
  for (const std::string &uri : fields.uris)
    names += der_uri(uri);
  std::string point = fields.dist_point;
  if (point.empty() && !names.empty())
    point = der_tlv(0xA0, der_tlv(0xA0, names));
  std::string value = point + flag(0x81, fields.user_certs) + flag(0x82, fields.ca_certs) +
                      (fields.reasons ? der_reasons(*fields.reasons, 0x83) : "") +
                      flag(0x84, fields.indirect) + flag(0x85, fields.attribute_certs);
  return crl_extension("2.5.29.28", der_tlv(0x30, value), critical);
}

std::string authority_key_id(const akid_fields &fields, bool critical) {
  std::string value = (fields.key_id ? der_tlv(0x80, *fields.key_id) : "") +
                      unless_empty(0xA1, fields.issuer) +
                      (fields.serial ? der_tlv(0x82, *fields.serial) : "");
  return crl_extension("2.5.29.35", der_tlv(0x30, value), critical);
}

std::string reason_code(int reason, bool critical) {
  return crl_extension("2.5.29.21", der_tlv(0x0A, std::string(1, static_cast<char>(reason))),
                       critical);
}

std::string certificate_issuer(const std::string &common_name, bool critical) {
  return crl_extension("2.5.29.29", der_tlv(0x30, der_directory_name(common_name)), critical);
}

std::string crl_entry(const std::string &serial_octets, const std::string &extensions,
                      const std::string &date) {
  return der_tlv(0x30, der_integer(serial_octets) + date + unless_empty(0x30, extensions));
}

std::string crl_entry(long serial, const std::string &extensions) {
  return der_tlv(0x30, der_integer(serial) + der_utc_time(crl_der_now - 86400) +
                           unless_empty(0x30, extensions));
}

key crl_ec_key() {
  static const key pair = make_ec_key();
  return pair;
}

std::string tbs_cert_list(const crl_fields &fields) {
  std::string extensions = fields.extensions_element
                               ? *fields.extensions_element
                               : unless_empty(0xA0, unless_empty(0x30, fields.extensions));
  return der_tlv(0x30, fields.version +
                           fields.algorithm.value_or(signing_algorithm(fields.signing)) +
                           fields.issuer + fields.this_update + fields.next_update +
                           (fields.entries ? der_tlv(0x30, *fields.entries) : "") + extensions +
                           fields.behind_tbs_fields);
}

std::string sign_tbs(const std::string &tbs, const crl_fields &fields) {
  std::string algorithm = fields.algorithm.value_or(signing_algorithm(fields.signing));
  std::string signature = fields.signature
                              ? *fields.signature
                              : der_tlv(0x03, std::string(1, '\0') + signature_over(tbs, fields));
  return der_tlv(
      0x30, tbs + fields.outer_algorithm.value_or(algorithm) + signature + fields.behind_signature);
}

std::string crl_octets(const crl_fields &fields) {
  return sign_tbs(tbs_cert_list(fields), fields);
}

std::string pkcs7_octets(const std::string &bare_crl, const crl_pkcs7_fields &fields) {
  std::string signed_data = fields.version + fields.digest_algorithms + fields.content +
                            (fields.certificates ? der_tlv(0xA0, *fields.certificates) : "") +
                            unless_empty(0xA1, fields.crls.value_or(bare_crl)) + fields.signers;
  return der_tlv(0x30, fields.content_type + der_tlv(0xA0, der_tlv(0x30, signed_data)));
}

}  // namespace support
