// SCEP messages with a payload, and the client's requests.
#include <libpki/error.h>
#include <libpki/pkcs7.h>
#include <libpki/util.h>
#include <openssl/objects.h>

#include <cstring>
#include <ctime>

#include "common/log.h"
#include "common/pkcs7.h"
#include "common/scep_msg.h"
#include "common/signing.h"

namespace pki {

namespace {

constexpr long stand_in_lifetime_s = 3600;
constexpr int tx_id_characters = 32;

using asn1_integer_ptr = std::unique_ptr<ASN1_INTEGER, free_with<ASN1_INTEGER_free>>;

malloc_ptr<char> random_tx_id() {
  int length = scep_nonce_bytes;
  malloc_ptr<unsigned char> octets(gen_nonce(&length));
  return malloc_ptr<char>(octets ? to_hex_string(octets.get(), length) : nullptr);
}

// A ContentInfo of type data around `content`'s DER.
int wrap_as_data(PKCS7 *content, pkcs7_ptr *data) {
  int length;
  malloc_ptr<unsigned char> der(
      der_encode(content, reinterpret_cast<i2d_fn *>(i2d_PKCS7), &length));
  if (!der)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  pkcs7_ptr made(PKCS7_new());
  if (!made || PKCS7_set_type(made.get(), NID_pkcs7_data) != 1 ||
      ASN1_OCTET_STRING_set(made->d.data, der.get(), length) != 1)
    return openssl_failure(PKI_INTERNAL_ERROR);
  *data = std::move(made);
  return PKI_OK;
}

int envelope_payload(void *payload, i2d_fn *encode, X509 *recipient, const EVP_CIPHER *cipher,
                     pkcs7_ptr *data) {
  int length = 0;
  unsigned char *der = der_encode(payload, encode, &length);
  secret_octets plaintext(der, length);
  if (!plaintext)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  PKCS7 *enveloped = nullptr;
  if (int error =
          pkcs7_encrypt(recipient, der, length, cipher ? cipher : EVP_des_cbc(), &enveloped))
    return error;
  pkcs7_ptr owner(enveloped);
  return wrap_as_data(enveloped, data);
}

bool fill_stand_in(X509 *cert, EVP_PKEY *pub_key, const X509_NAME *name,
                   const ASN1_INTEGER *serial) {
  time_t now = time(nullptr);
  return X509_set_version(cert, X509_VERSION_1) == 1 &&
         X509_set_serialNumber(cert, const_cast<ASN1_INTEGER *>(serial)) == 1 &&
         X509_set_issuer_name(cert, name) == 1 && X509_set_subject_name(cert, name) == 1 &&
         ASN1_TIME_set(X509_getm_notBefore(cert), now) &&
         ASN1_TIME_set(X509_getm_notAfter(cert), now + stand_in_lifetime_s) &&
         X509_set_pubkey(cert, pub_key) == 1;
}

// Equal for every request with the same key.
malloc_ptr<char> tx_id_of(X509_REQ *request) {
  int length;
  malloc_ptr<unsigned char> der(der_encode(X509_REQ_get_X509_PUBKEY(request),
                                           reinterpret_cast<i2d_fn *>(i2d_X509_PUBKEY), &length));
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned int hash_length = 0;
  if (!der || EVP_Digest(der.get(), static_cast<size_t>(length), hash, &hash_length, EVP_md5(),
                         nullptr) != 1)
    return nullptr;
  return malloc_ptr<char>(to_hex_string(hash, static_cast<int>(hash_length)));
}

// The INTEGER whose content octets are the transaction id's characters, as they are. They are
// hexadecimal digits, so the top bit is never set.
asn1_integer_ptr serial_from_tx_id(const char *tx_id) {
  unsigned char der[2 + tx_id_characters] = {V_ASN1_INTEGER, tx_id_characters};
  std::memcpy(der + 2, tx_id, tx_id_characters);
  const unsigned char *in = der;
  return asn1_integer_ptr(d2i_ASN1_INTEGER(nullptr, &in, sizeof der));
}

// `subject`, or an empty name that `*made` owns.
const X509_NAME *subject_or_empty(const X509_NAME *subject, x509_name_ptr *made) {
  if (subject)
    return subject;
  made->reset(X509_NAME_new());
  return made->get();
}

}  // namespace

int choose_digest(const EVP_MD **md, EVP_PKEY *key) {
  if (!*md)
    *md = get_digest(key);
  return *md ? PKI_OK : PKI_UNKNOWN_KEY_TYPE;
}

}  // namespace pki

using namespace pki;

const EVP_MD *get_digest(EVP_PKEY *key) {
  int type = key ? EVP_PKEY_id(key) : EVP_PKEY_NONE;
  switch (type) {
    case EVP_PKEY_RSA:
    case EVP_PKEY_RSA2:
      return EVP_md5();
    case EVP_PKEY_DSA:
    case EVP_PKEY_DSA1:
    case EVP_PKEY_DSA2:
    case EVP_PKEY_DSA3:
    case EVP_PKEY_DSA4:
      return EVP_sha1();
    default:
      syslog(log_error, "Can't figure out signature digest-algorithm for unknown key type %d",
             type);
      return nullptr;
  }
}

int gen_scep_msg(int msg_type, void *payload, i2d_fn *encode, EVP_PKEY *key, X509 *signer_cert,
                 X509 *recipient_cert, int pki_status, const char *tx_id,
                 const void *recipient_nonce, int recipient_nonce_len, const EVP_MD *md,
                 const EVP_CIPHER *cipher, PKCS7 **out) {
  if (!out)
    return PKI_INVALID_ARGS;
  *out = nullptr;
  if (!payload || !encode || !key || !signer_cert || !recipient_cert)
    return PKI_INVALID_ARGS;
  malloc_ptr<char> made_tx_id;
  if (!tx_id) {
    made_tx_id = random_tx_id();
    if (!made_tx_id)
      return openssl_failure(PKI_OUT_OF_MEMORY);
    tx_id = made_tx_id.get();
  }
  int nonce_length = scep_nonce_bytes;
  malloc_ptr<unsigned char> nonce(gen_nonce(&nonce_length));
  if (!nonce)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  int count = 0;
  X509_ATTRIBUTE **made = gen_tx_attrs(msg_type, tx_id, nonce.get(), nonce_length, recipient_nonce,
                                       recipient_nonce_len, pki_status, -1, &count);
  tx_attributes attributes(made, count);
  if (!attributes)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  pkcs7_ptr data;
  if (int error = envelope_payload(payload, encode, recipient_cert, cipher, &data))
    return error;
  if (int error = choose_digest(&md, key))
    return error;
  int error =
      pkcs7_sign(signer_cert, key, md, data.get(), attributes.get(), attributes.count(), out);
  if (!error)
    data.release();  // the message owns it now
  return error;
}

int gen_ss_cert(EVP_PKEY *sign_key, EVP_PKEY *pub_key, const X509_NAME *name,
                const ASN1_INTEGER *serial, const EVP_MD *md, X509 **out) {
  if (!out)
    return PKI_INVALID_ARGS;
  *out = nullptr;
  if (!sign_key || !pub_key || !name || !serial)
    return PKI_INVALID_ARGS;
  if (int error = choose_digest(&md, sign_key))
    return error;
  x509_ptr cert(X509_new());
  if (!cert || !fill_stand_in(cert.get(), pub_key, name, serial))
    return openssl_failure(PKI_OUT_OF_MEMORY);
  if (!sign_cert(cert.get(), sign_key, md))
    return openssl_failure(PKI_SIGN_FAILED);
  *out = cert.release();
  return PKI_OK;
}

int gen_scep_cert_req(EVP_PKEY *sign_key, EVP_PKEY *pub_key, const X509_NAME *subject,
                      X509 *ca_cert, X509_ATTRIBUTE **attrs, int attr_count, const EVP_MD *md,
                      const EVP_CIPHER *cipher, PKCS7 **out) {
  if (!out)
    return PKI_INVALID_ARGS;
  *out = nullptr;
  if (!sign_key || !pub_key || !ca_cert || attr_count < 0 || (!attrs && attr_count > 0))
    return PKI_INVALID_ARGS;
  x509_name_ptr empty;
  const X509_NAME *name = subject_or_empty(subject, &empty);
  if (!name)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  x509_req_ptr request;
  secret_octets der;
  if (int error = make_request(sign_key, pub_key, name, attrs, attr_count, &request, &der))
    return error;
  malloc_ptr<char> tx_id = tx_id_of(request.get());
  asn1_integer_ptr serial = tx_id ? serial_from_tx_id(tx_id.get()) : nullptr;
  if (!serial)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  X509 *made = nullptr;
  if (int error = gen_ss_cert(sign_key, pub_key, name, serial.get(), md, &made))
    return error;
  x509_ptr stand_in(made);
  return gen_scep_msg(SCEP_PKCS_REQ, &der, i2d_secret_octets, sign_key, stand_in.get(), ca_cert, -1,
                      tx_id.get(), nullptr, 0, md, cipher, out);
}

int gen_scep_get_cert_init(SCEP_ISSUER_AND_SUBJECT *ias, EVP_PKEY *key, X509 *signer_cert,
                           X509 *ca_cert, PKCS7 *earlier, const EVP_MD *md,
                           const EVP_CIPHER *cipher, PKCS7 **out) {
  if (!out)
    return PKI_INVALID_ARGS;
  *out = nullptr;
  scep_transaction transaction;
  if (int error = read_transaction(earlier, &transaction))
    return error;
  return gen_scep_msg(SCEP_GET_CERT_INITIAL, ias,
                      reinterpret_cast<i2d_fn *>(i2d_SCEP_ISSUER_AND_SUBJECT), key, signer_cert,
                      ca_cert, -1, transaction.id, transaction.nonce, transaction.nonce_length, md,
                      cipher, out);
}

int gen_scep_get_cert(PKCS7_ISSUER_AND_SERIAL *ias, EVP_PKEY *key, X509 *signer_cert,
                      EVP_PKEY *pub_key, X509 *ca_cert, const EVP_MD *md, const EVP_CIPHER *cipher,
                      PKCS7 **out) {
  if (!out)
    return PKI_INVALID_ARGS;
  *out = nullptr;
  if (!ias)
    return PKI_INVALID_ARGS;
  x509_ptr stand_in;
  if (!signer_cert) {
    x509_name_ptr empty(X509_NAME_new());
    if (!empty)
      return openssl_failure(PKI_OUT_OF_MEMORY);
    if (int error = gen_ss_cert(key, pub_key, empty.get(), ias->serial, md, &signer_cert))
      return error;
    stand_in.reset(signer_cert);
  }
  return gen_scep_msg(SCEP_GET_CERT, ias, reinterpret_cast<i2d_fn *>(i2d_PKCS7_ISSUER_AND_SERIAL),
                      key, signer_cert, ca_cert, -1, nullptr, nullptr, 0, md, cipher, out);
}
