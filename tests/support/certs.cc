#include "support/certs.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <cstdlib>
#include <map>
#include <mutex>

#include "support/need.h"

namespace support {

namespace {

std::string bio_text(BIO *bio) {
  char *data = nullptr;
  long length = BIO_get_mem_data(bio, &data);
  std::string text(data, static_cast<size_t>(length));
  BIO_free(bio);
  return text;
}

constexpr time_t day = 86400;

time_t or_default(time_t given, time_t offset) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return given ? given : now.tv_sec + offset;
}

void add_extension(X509 *cert, const std::string &name, const std::string &value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, cert, cert, nullptr, nullptr, 0);
  X509V3_set_ctx_nodb(&context);
  X509_EXTENSION *extension = X509V3_EXT_nconf(nullptr, &context, name.c_str(), value.c_str());
  need(extension && X509_add_ext(cert, extension, -1), "extension");
  X509_EXTENSION_free(extension);
}

void add_only_some_reasons(X509_CRL *crl, const std::vector<int> &bits) {
  ISSUING_DIST_POINT *idp = ISSUING_DIST_POINT_new();
  idp->onlysomereasons = ASN1_BIT_STRING_new();
  for (int bit : bits)
    ASN1_BIT_STRING_set_bit(idp->onlysomereasons, bit, 1);
  need(X509_CRL_add1_ext_i2d(crl, NID_issuing_distribution_point, idp, 1, 0) == 1, "idp");
  ISSUING_DIST_POINT_free(idp);
}

void add_padding(X509_CRL *crl, size_t octets) {
  ASN1_OBJECT *object = OBJ_txt2obj("1.3.6.1.4.1.32473.99", 1);
  ASN1_OCTET_STRING *data = ASN1_OCTET_STRING_new();
  std::string filler(octets, 'x');
  ASN1_OCTET_STRING_set(data, reinterpret_cast<const unsigned char *>(filler.data()),
                        static_cast<int>(octets));
  X509_EXTENSION *extension = X509_EXTENSION_create_by_OBJ(nullptr, object, 0, data);
  need(extension && X509_CRL_add_ext(crl, extension, -1), "padding");
  X509_EXTENSION_free(extension);
  ASN1_OCTET_STRING_free(data);
  ASN1_OBJECT_free(object);
}

}  // namespace

key make_key(int bits) {
  EVP_PKEY *made = EVP_RSA_gen(static_cast<unsigned>(bits));
  need(made, "RSA key");
  return key(made, EVP_PKEY_free);
}

key test_key(int which) {
  static std::mutex mutex;
  static std::map<int, key> keys;
  std::lock_guard lock(mutex);
  key &found = keys[which];
  if (!found)
    found = make_key();
  return found;
}

key make_ec_key() {
  EVP_PKEY *made = EVP_EC_gen("P-256");
  need(made, "EC key");
  return key(made, EVP_PKEY_free);
}

key public_part(const key &pair) {
  unsigned char *out = nullptr;
  int length = i2d_PUBKEY(pair.get(), &out);
  const unsigned char *in = out;
  EVP_PKEY *made = d2i_PUBKEY(nullptr, &in, length);
  OPENSSL_free(out);
  need(made, "public key");
  return key(made, EVP_PKEY_free);
}

name make_name(const std::vector<std::pair<std::string, std::string>> &entries) {
  X509_NAME *made = X509_NAME_new();
  for (const auto &[attribute, value] : entries)
    need(X509_NAME_add_entry_by_txt(made, attribute.c_str(), MBSTRING_UTF8,
                                    reinterpret_cast<const unsigned char *>(value.c_str()), -1, -1,
                                    0) == 1,
         "name entry");
  return name(made, X509_NAME_free);
}

name common_name(const std::string &text) {
  return make_name({{"CN", text}});
}

integer make_serial(long value) {
  ASN1_INTEGER *made = ASN1_INTEGER_new();
  need(ASN1_INTEGER_set(made, value) == 1, "integer");
  return integer(made, ASN1_INTEGER_free);
}

integer make_serial(const std::string &octets) {
  BIGNUM *number = BN_bin2bn(reinterpret_cast<const unsigned char *>(octets.data()),
                             static_cast<int>(octets.size()), nullptr);
  ASN1_INTEGER *made = BN_to_ASN1_INTEGER(number, nullptr);
  BN_free(number);
  need(made, "integer");
  return integer(made, ASN1_INTEGER_free);
}

std::string octets_of(const ASN1_STRING *string) {
  if (!string)
    return "(none)";
  return std::string(reinterpret_cast<const char *>(ASN1_STRING_get0_data(string)),
                     static_cast<size_t>(ASN1_STRING_length(string)));
}

asn1_time make_time(time_t seconds) {
  ASN1_TIME *made = ASN1_TIME_set(nullptr, seconds);
  need(made, "time");
  return asn1_time(made, ASN1_TIME_free);
}

cert make_cert(const cert_options &options) {
  name subject = options.subject ? options.subject : common_name("subject");
  name issuer = options.issuer ? options.issuer : subject;
  key public_key = options.public_key ? options.public_key : test_key(0);
  key signing_key = options.signing_key ? options.signing_key : public_key;
  X509 *made = X509_new();
  X509_set_version(made, options.version);
  integer serial = make_serial(options.serial);
  X509_set_serialNumber(made, serial.get());
  X509_set_subject_name(made, subject.get());
  X509_set_issuer_name(made, issuer.get());
  X509_set1_notBefore(made, make_time(or_default(options.not_before, -day)).get());
  X509_set1_notAfter(made, make_time(or_default(options.not_after, 365 * day)).get());
  X509_set_pubkey(made, public_part(public_key).get());
  if (options.ca) {
    add_extension(made, "basicConstraints", "critical,CA:TRUE");
    add_extension(made, "keyUsage", "critical,keyCertSign,cRLSign");
  }
  for (const auto &[extension_name, value] : options.extensions)
    add_extension(made, extension_name, value);
  need(X509_sign(made, signing_key.get(), options.digest ? options.digest : EVP_sha256()) > 0,
       "certificate signature");
  // Read back, as a certificate from outside would be.
  std::string octets = encode<X509>(made, i2d_X509);
  X509_free(made);
  const auto *in = reinterpret_cast<const unsigned char *>(octets.data());
  return cert(d2i_X509(nullptr, &in, static_cast<long>(octets.size())), X509_free);
}

cert make_ca(const std::string &cn, int which, long serial) {
  cert_options options;
  options.subject = common_name(cn);
  options.serial = serial;
  options.public_key = test_key(which);
  options.ca = true;
  return make_cert(options);
}

cert simple_cert(const std::string &issuer, const std::string &subject, long serial) {
  cert_options options;
  options.subject = common_name(subject);
  options.issuer = common_name(issuer);
  options.serial = serial;
  return make_cert(options);
}

// Makes an object again and again until its DER has that size.
template <class Make>
static auto of_size(size_t size, Make make) {
  size_t padding = size > 400 ? size - 400 : 1;
  for (int tries = 0; tries < 20; tries++) {
    auto made = make(padding);
    size_t got = der(made).size();
    if (got == size)
      return made;
    padding += size - got;
  }
  give_up("object of an exact size");
}

cert cert_of_size(size_t size, const std::string &issuer, const std::string &subject, long serial) {
  cert_options options;
  options.subject = common_name(subject);
  options.issuer = common_name(issuer);
  options.serial = serial;
  return of_size(size, [&](size_t padding) {
    options.extensions = {{"1.2.3.4", "DER:" + std::string(2 * padding, '0')}};
    return make_cert(options);
  });
}

crl make_crl(const crl_options &options) {
  X509_CRL *made = X509_CRL_new();
  X509_CRL_set_version(made, 1);
  X509_CRL_set_issuer_name(made, (options.issuer ? options.issuer : common_name("issuer")).get());
  X509_CRL_set1_lastUpdate(made, make_time(or_default(options.this_update, -day)).get());
  X509_CRL_set1_nextUpdate(made, make_time(or_default(options.next_update, 7 * day)).get());
  for (long serial : options.revoked) {
    X509_REVOKED *entry = X509_REVOKED_new();
    X509_REVOKED_set_serialNumber(entry, make_serial(serial).get());
    X509_REVOKED_set_revocationDate(entry, make_time(or_default(0, -day)).get());
    X509_CRL_add0_revoked(made, entry);
  }
  if (!options.only_some_reasons.empty())
    add_only_some_reasons(made, options.only_some_reasons);
  if (options.padding)
    add_padding(made, options.padding);
  key signing_key = options.signing_key ? options.signing_key : test_key(0);
  need(X509_CRL_sign(made, signing_key.get(), EVP_sha256()) > 0, "CRL signature");
  std::string octets = encode<X509_CRL>(made, i2d_X509_CRL);
  X509_CRL_free(made);
  const auto *in = reinterpret_cast<const unsigned char *>(octets.data());
  return crl(d2i_X509_CRL(nullptr, &in, static_cast<long>(octets.size())), X509_CRL_free);
}

crl crl_of_size(size_t size, const std::string &issuer_cn) {
  crl_options options;
  options.issuer = common_name(issuer_cn);
  return of_size(size, [&](size_t padding) {
    options.padding = padding;
    return make_crl(options);
  });
}

std::string der(const cert &object) {
  return encode<X509>(object.get(), i2d_X509);
}
std::string der(const crl &object) {
  return encode<X509_CRL>(object.get(), i2d_X509_CRL);
}

std::string pem(const cert &object) {
  BIO *bio = BIO_new(BIO_s_mem());
  PEM_write_bio_X509(bio, object.get());
  return bio_text(bio);
}

std::string private_pem(const key &object) {
  BIO *bio = BIO_new(BIO_s_mem());
  PEM_write_bio_PrivateKey(bio, object.get(), nullptr, nullptr, 0, nullptr, nullptr);
  return bio_text(bio);
}

std::string public_pem(const key &object) {
  BIO *bio = BIO_new(BIO_s_mem());
  PEM_write_bio_PUBKEY(bio, object.get());
  return bio_text(bio);
}

std::string base64_lines(const std::string &octets) {
  BIO *bio = BIO_push(BIO_new(BIO_f_base64()), BIO_new(BIO_s_mem()));
  BIO_write(bio, octets.data(), static_cast<int>(octets.size()));
  (void)BIO_flush(bio);
  BIO *memory = BIO_pop(bio);
  BIO_free(bio);
  return bio_text(memory);
}

void clear_openssl_errors() {
  ERR_clear_error();
}

void raise_openssl_error(int reason) {
  ERR_new();
  ERR_set_debug("test", 1, "test");
  ERR_set_error(ERR_LIB_USER, reason, nullptr);
}

}  // namespace support
