// SCEP messages in tests: made from DER by hand, and taken apart with OpenSSL alone.
#ifndef TESTS_UNIT_SCEP_MSG_MESSAGES_H
#define TESTS_UNIT_SCEP_MSG_MESSAGES_H

#include <gtest/gtest.h>
#include <libpki/attributes.h>
#include <libpki/error.h>
#include <libpki/oids.h>
#include <libpki/pkcs7.h>
#include <libpki/scep_msg.h>
#include <openssl/dsa.h>
#include <openssl/err.h>
#include <openssl/provider.h>

#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "fakes/failures.h"
#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"

namespace scep {

using support::pkcs7;

// ---- DER by hand ----

inline std::string tlv(int tag, const std::string &content) {
  std::string length;
  for (size_t rest = content.size(); rest; rest >>= 8)
    length.insert(length.begin(), static_cast<char>(rest & 0xff));
  std::string head(1, static_cast<char>(tag));
  if (content.size() < 128)
    head += static_cast<char>(content.size());
  else
    head += static_cast<char>(0x80 | length.size()) + length;
  return head + content;
}

template <class T>
std::string encode(const T *object, int (*i2d)(const T *, unsigned char **)) {
  unsigned char *out = nullptr;
  int length = i2d(object, &out);
  std::string octets(reinterpret_cast<char *>(out), length > 0 ? static_cast<size_t>(length) : 0);
  OPENSSL_free(out);
  return octets;
}

inline std::string oid(int nid) {
  return encode<ASN1_OBJECT>(OBJ_nid2obj(nid), i2d_ASN1_OBJECT);
}

// An attribute of a row of pki_nid_list; `values` are encoded already.
inline std::string attribute(int row, const std::vector<std::string> &values) {
  std::string all;
  for (const std::string &value : values)
    all += value;
  return tlv(0x30, oid(pki_nid_list[row]) + tlv(0x31, all));
}
inline std::string printable(const std::string &text) {
  return tlv(V_ASN1_PRINTABLESTRING, text);
}
inline std::string octet_string(const std::string &octets) {
  return tlv(V_ASN1_OCTET_STRING, octets);
}
inline std::string bit_string(const std::string &octets) {
  return tlv(V_ASN1_BIT_STRING, std::string(1, '\0') + octets);
}

// ---- messages ----

inline PKCS7_SIGNER_INFO *signer_info(const std::vector<std::string> &attributes) {
  static const support::cert named = support::make_ca("named", 0, 9);
  PKCS7_SIGNER_INFO *info = PKCS7_SIGNER_INFO_new();
  EXPECT_EQ(PKCS7_SIGNER_INFO_set(info, named.get(), support::test_key(0).get(), EVP_sha1()), 1);
  info->auth_attr = sk_X509_ATTRIBUTE_new_null();
  for (const std::string &der : attributes) {
    const auto *in = reinterpret_cast<const unsigned char *>(der.data());
    X509_ATTRIBUTE *made = d2i_X509_ATTRIBUTE(nullptr, &in, static_cast<long>(der.size()));
    EXPECT_NE(made, nullptr);
    sk_X509_ATTRIBUTE_push(info->auth_attr, made);
  }
  return info;
}

// A SignedData of data with one SignerInfo for each list of attributes, read back from its DER.
// Nothing in it is really signed.
inline pkcs7 message_of_signers(const std::vector<std::vector<std::string>> &signers) {
  pkcs7 made(PKCS7_new(), PKCS7_free);
  EXPECT_EQ(PKCS7_set_type(made.get(), NID_pkcs7_signed), 1);
  EXPECT_EQ(PKCS7_content_new(made.get(), NID_pkcs7_data), 1);
  for (const std::vector<std::string> &attributes : signers)
    EXPECT_EQ(PKCS7_add_signer(made.get(), signer_info(attributes)), 1);
  return support::read_message(support::der(made));
}
inline pkcs7 message_with(const std::vector<std::string> &attributes) {
  return message_of_signers({attributes});
}

inline pkcs7 read_back(const pkcs7 &message) {
  return support::read_message(support::der(message));
}

// ---- taking messages apart ----

inline PKCS7_SIGNER_INFO *first_signer(const pkcs7 &message) {
  return sk_PKCS7_SIGNER_INFO_value(message->d.sign->signer_info, 0);
}

inline const ASN1_TYPE *value_of(const pkcs7 &message, int row) {
  return PKCS7_get_signed_attribute(first_signer(message), pki_nid_list[row]);
}

inline std::string string_octets(const ASN1_STRING *string) {
  return std::string(reinterpret_cast<const char *>(ASN1_STRING_get0_data(string)),
                     static_cast<size_t>(ASN1_STRING_length(string)));
}

inline std::string typed_value(const pkcs7 &message, int row, int type) {
  const ASN1_TYPE *value = value_of(message, row);
  if (!value)
    return "(none)";
  if (value->type != type)
    return "(type " + std::to_string(value->type) + ")";
  return string_octets(value->value.asn1_string);
}
// The attribute's characters; "(none)" without one, "(type N)" when it is no PrintableString.
inline std::string text_of(const pkcs7 &message, int row) {
  return typed_value(message, row, V_ASN1_PRINTABLESTRING);
}
// The same for an OCTET STRING.
inline std::string octets_of(const pkcs7 &message, int row) {
  return typed_value(message, row, V_ASN1_OCTET_STRING);
}

// The NIDs of all authenticated attributes.
inline std::multiset<int> attribute_nids(const pkcs7 &message) {
  std::multiset<int> nids;
  STACK_OF(X509_ATTRIBUTE) *all = PKCS7_get_signed_attributes(first_signer(message));
  for (int i = 0; i < sk_X509_ATTRIBUTE_num(all); i++)
    nids.insert(OBJ_obj2nid(X509_ATTRIBUTE_get0_object(sk_X509_ATTRIBUTE_value(all, i))));
  return nids;
}
// What attribute_nids is for a finished message with these rows.
inline std::multiset<int> finished_with(const std::vector<int> &rows) {
  std::multiset<int> nids = {NID_pkcs9_contentType, NID_pkcs9_messageDigest, NID_pkcs9_signingTime};
  for (int row : rows)
    nids.insert(pki_nid_list[row]);
  return nids;
}

inline std::string digest_of(const pkcs7 &message) {
  return OBJ_nid2sn(OBJ_obj2nid(first_signer(message)->digest_alg->algorithm));
}

inline bool openssl_verifies(const pkcs7 &message) {
  pkcs7 received = read_back(message);
  BIO *out = BIO_new(BIO_s_null());
  int good =
      PKCS7_verify(received.get(), nullptr, nullptr, nullptr, out, PKCS7_NOVERIFY | PKCS7_BINARY);
  BIO_free(out);
  support::clear_openssl_errors();
  return good == 1;
}

// Octets of the message's inner data; "(no data)" when there are none of that type.
inline std::string inner_data(const pkcs7 &message) {
  PKCS7 *inner = message->d.sign->contents;
  if (!inner || !PKCS7_type_is_data(inner) || !inner->d.data)
    return "(no data)";
  return string_octets(inner->d.data);
}

// A library context that knows the old ciphers, of the tests' own.
inline OSSL_LIB_CTX *all_ciphers() {
  static OSSL_LIB_CTX *const context = [] {
    OSSL_LIB_CTX *made = OSSL_LIB_CTX_new();
    OSSL_PROVIDER_load(made, "default");
    OSSL_PROVIDER_load(made, "legacy");
    return made;
  }();
  return context;
}

// The envelope in a message, bound to a context that can open it; null when it is none.
inline pkcs7 envelope_in(const pkcs7 &message) {
  std::string der = inner_data(message);
  const auto *in = reinterpret_cast<const unsigned char *>(der.data());
  PKCS7 *made = PKCS7_new_ex(all_ciphers(), nullptr);
  if (!d2i_PKCS7(&made, &in, static_cast<long>(der.size())) || !PKCS7_type_is_enveloped(made)) {
    support::clear_openssl_errors();
    PKCS7_free(made);
    return nullptr;
  }
  return pkcs7(made, PKCS7_free);
}

inline std::string cipher_of(const pkcs7 &message) {
  pkcs7 envelope = envelope_in(message);
  if (!envelope)
    return "(no envelope)";
  return OBJ_nid2sn(OBJ_obj2nid(envelope->d.enveloped->enc_data->algorithm->algorithm));
}

// What OpenSSL decrypts in the message's envelope.
inline std::string payload_of(const pkcs7 &message, const support::key &key,
                              const support::cert &cert) {
  pkcs7 envelope = envelope_in(message);
  if (!envelope)
    return "(no envelope)";
  BIO *out = BIO_new(BIO_s_mem());
  int good = PKCS7_decrypt(envelope.get(), key.get(), cert.get(), out, PKCS7_BINARY);
  char *data = nullptr;
  long length = BIO_get_mem_data(out, &data);
  std::string octets(data, static_cast<size_t>(length));
  BIO_free(out);
  support::clear_openssl_errors();
  return good == 1 ? octets : "(does not open)";
}

template <class T>
std::shared_ptr<T> decode(const std::string &der, T *(*d2i)(T **, const unsigned char **, long),
                          void (*release)(T *)) {
  const auto *in = reinterpret_cast<const unsigned char *>(der.data());
  T *made = d2i(nullptr, &in, static_cast<long>(der.size()));
  if (made) {
    EXPECT_EQ(in, reinterpret_cast<const unsigned char *>(der.data()) + der.size());
  }
  support::clear_openssl_errors();
  return std::shared_ptr<T>(made, release);
}

// ---- types ----

using ias = std::shared_ptr<SCEP_ISSUER_AND_SUBJECT>;
using issuer_and_serial = std::shared_ptr<PKCS7_ISSUER_AND_SERIAL>;

inline ias make_ias(const support::name &issuer, const support::name &subject) {
  ias made(SCEP_ISSUER_AND_SUBJECT_new(), SCEP_ISSUER_AND_SUBJECT_free);
  made->issuer = X509_NAME_dup(issuer.get());
  made->subject = X509_NAME_dup(subject.get());
  return made;
}
inline ias make_ias() {
  return make_ias(support::make_name({{"C", "US"}, {"CN", "the CA"}}),
                  support::make_name({{"C", "DE"}, {"CN", "the device"}}));
}

inline issuer_and_serial make_issuer_and_serial(long serial = 4711) {
  issuer_and_serial made(PKCS7_ISSUER_AND_SERIAL_new(), PKCS7_ISSUER_AND_SERIAL_free);
  X509_NAME_set(&made->issuer, support::common_name("the CA").get());
  ASN1_INTEGER_set(made->serial, serial);
  return made;
}

inline i2d_fn *ias_encoder() {
  return reinterpret_cast<i2d_fn *>(i2d_SCEP_ISSUER_AND_SUBJECT);
}

inline support::key big_key() {
  static const support::key made = support::make_key(2048);
  return made;
}
inline support::key dsa_key() {
  static const support::key made = [] {
    EVP_PKEY_CTX *context = EVP_PKEY_CTX_new_id(EVP_PKEY_DSA, nullptr);
    EVP_PKEY *parameters = nullptr;
    EVP_PKEY *pair = nullptr;
    EXPECT_EQ(EVP_PKEY_paramgen_init(context), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set_dsa_paramgen_bits(context, 1024), 1);
    EXPECT_EQ(EVP_PKEY_paramgen(context, &parameters), 1);
    EVP_PKEY_CTX_free(context);
    context = EVP_PKEY_CTX_new(parameters, nullptr);
    EXPECT_EQ(EVP_PKEY_keygen_init(context), 1);
    EXPECT_EQ(EVP_PKEY_keygen(context, &pair), 1);
    EVP_PKEY_CTX_free(context);
    EVP_PKEY_free(parameters);
    return support::key(pair, EVP_PKEY_free);
  }();
  return made;
}
inline const std::string &unknown_key_line() {
  static const std::string line =
      "Can't figure out signature digest-algorithm for unknown key type " +
      std::to_string(EVP_PKEY_EC);
  return line;
}

inline support::cert certificate(const std::string &name, const support::key &key, long serial) {
  support::cert_options options;
  options.subject = support::common_name(name);
  options.serial = serial;
  options.public_key = key;
  return support::make_cert(options);
}

inline bool is_upper_hex(const std::string &text, size_t length) {
  return text.size() == length && text.find_first_not_of("0123456789ABCDEF") == std::string::npos;
}

// ---- fixture ----

struct scep_test : testing::Test {
  scep_test() {
    EXPECT_EQ(pki_register_oids(), 1);
    support::clear_openssl_errors();
    fake_failures::reset();
    clear_log();
  }
  ~scep_test() override {
    fake_failures::reset();
    EXPECT_EQ(ERR_peek_error(), 0u) << "errors left in OpenSSL's queue";
  }

  template <class T>
  T *untouched() {
    return reinterpret_cast<T *>(this);
  }

  support::key device_key = support::test_key(0);
  support::key ca_key = support::test_key(1);
  support::cert device = certificate("device", device_key, 7);
  support::cert ca = support::make_ca("ca", 1, 5);
};

}  // namespace scep

#endif
