// What the SCEP message makers share.
#ifndef PKI_COMMON_SCEP_MSG_H
#define PKI_COMMON_SCEP_MSG_H

#include <libpki/oids.h>
#include <libpki/scep_msg.h>

#include "common/ossl_ptr.h"
#include "common/secret_octets.h"

namespace pki {

constexpr int scep_nonce_bytes = 16;

// The attributes of one message, freed with their array.
class tx_attributes {
 public:
  tx_attributes(X509_ATTRIBUTE **attributes, int count) : attributes_(attributes), count_(count) {}
  tx_attributes(const tx_attributes &) = delete;
  tx_attributes &operator=(const tx_attributes &) = delete;
  ~tx_attributes();
  [[nodiscard]] X509_ATTRIBUTE **get() const { return attributes_; }
  [[nodiscard]] int count() const { return count_; }
  explicit operator bool() const { return attributes_ != nullptr; }

 private:
  X509_ATTRIBUTE **attributes_;
  int count_;
};

// A transaction as a message carries it; both point into the message.
struct scep_transaction {
  const char *id;
  const unsigned char *nonce;
  int nonce_length;
};

// Reads transaction id and sender nonce; an empty BIT STRING is no nonce. Returns 0 or an
// attribute reader's code.
[[nodiscard]] int read_transaction(PKCS7 *message, scep_transaction *transaction);

// The octets of a SignedData's inner data, or null.
[[nodiscard]] const ASN1_OCTET_STRING *inner_data_of(PKCS7 *message);

// Decodes the EnvelopedData that a message's inner data holds; null when it holds none.
[[nodiscard]] PKCS7 *decode_envelope(PKCS7 *message);

using x509_req_ptr = std::unique_ptr<X509_REQ, free_with<X509_REQ_free>>;

// A PKCS#10 request, signed with MD5: its encoding in `*der`; as an object, with zeros for the
// octets of its attributes' strings, in `*blanked`. Returns 0; 2; 44 (or 2).
[[nodiscard]] int make_request(EVP_PKEY *sign_key, EVP_PKEY *pub_key, const X509_NAME *subject,
                               X509_ATTRIBUTE **attrs, int attr_count, x509_req_ptr *blanked,
                               secret_octets *der);

// An i2d_fn for a secret_octets that holds an encoding.
int i2d_secret_octets(const void *octets, unsigned char **out);

// `md`, or else the digest for the key's type. Returns 0 or PKI_UNKNOWN_KEY_TYPE.
[[nodiscard]] int choose_digest(const EVP_MD **md, EVP_PKEY *key);

}  // namespace pki

#endif
