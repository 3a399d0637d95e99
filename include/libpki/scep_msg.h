/*
 * scep_msg.h: the messages of the Simple Certificate Enrollment Protocol (RFC 8894), both sides.
 *
 * A message with a payload is a SignedData, whose authenticated attributes carry the transaction,
 * around an EnvelopedData for the recipient, around the payload's DER. Codes written "2 or N" are
 * 2 when OpenSSL reports an allocation failure and N otherwise. Unless said otherwise `*out` is a
 * new message of the caller's, null after a failure, and a required argument that is null gives
 * 63. Any thread, once libpki_init has run.
 *
 * A null `md` means the digest for the key's type (get_digest), a null `cipher` DES-CBC, which
 * comes from OpenSSL's legacy provider in a library context of our own: the host's own is left
 * alone. Without that provider DES-CBC gives 21 where a message is made and 22 where it is opened,
 * and a line at level 3 says so.
 */
#ifndef LIBPKI_SCEP_MSG_H
#define LIBPKI_SCEP_MSG_H

#include <libpki/types.h>
#include <openssl/pkcs7.h>

PKI_BEGIN_DECLS

/* Message types and statuses, written as decimal text. */
enum { SCEP_CERT_REP = 3, SCEP_PKCS_REQ = 19, SCEP_GET_CERT_INITIAL = 20, SCEP_GET_CERT = 21 };
enum { SCEP_STATUS_SUCCESS = 0, SCEP_STATUS_FAILURE = 2, SCEP_STATUS_PENDING = 3 };

/* NOLINTBEGIN(readability-identifier-naming): OpenSSL's conventions. */

/* IssuerAndSubject ::= SEQUENCE { issuer Name, subject Name }: what a poll asks for. */
typedef struct SCEP_ISSUER_AND_SUBJECT {
  X509_NAME *issuer;  /* the CA's name; owned */
  X509_NAME *subject; /* of the requested certificate; owned */
} SCEP_ISSUER_AND_SUBJECT;

/*
 * Make, free, encode and decode an IssuerAndSubject, by OpenSSL's conventions for a type. _new
 * leaves both names null.
 */
PKI_API SCEP_ISSUER_AND_SUBJECT *SCEP_ISSUER_AND_SUBJECT_new(void);
PKI_API void SCEP_ISSUER_AND_SUBJECT_free(SCEP_ISSUER_AND_SUBJECT *value);
PKI_API int i2d_SCEP_ISSUER_AND_SUBJECT(const SCEP_ISSUER_AND_SUBJECT *value, unsigned char **out);
PKI_API SCEP_ISSUER_AND_SUBJECT *d2i_SCEP_ISSUER_AND_SUBJECT(SCEP_ISSUER_AND_SUBJECT **value,
                                                             const unsigned char **in, long len);

/* NOLINTEND(readability-identifier-naming) */

/* ---- making messages ---- */

/* The signature digest for a key's type: MD5 for RSA, SHA-1 for DSA; else null, and a line at 3. */
PKI_API const EVP_MD *get_digest(EVP_PKEY *key);

/*
 * The attributes of a SCEP transaction. They are an array (malloc) of `*count` attributes, the
 * caller's with its elements. A negative number or length, or a null pointer, leaves its attribute
 * out. Null on failure, and for a null `count`.
 */
PKI_API X509_ATTRIBUTE **gen_tx_attrs(int msg_type, const char *tx_id, const void *sender_nonce,
                                      int sender_nonce_len, const void *recipient_nonce,
                                      int recipient_nonce_len, int pki_status, int fail_info,
                                      int *count);

/*
 * A SCEP message of any type. It is of `msg_type`, around `payload` (encoded with `encode`), signed
 * with `key` under `signer_cert`, for `recipient_cert`. A null `tx_id` makes a random one; a
 * negative `pki_status` and a null `recipient_nonce` are left out.
 * Returns 0; 2; 76 no digest for the key; 72 (or 2); the codes of pkcs7_encrypt and pkcs7_sign.
 */
PKI_API int gen_scep_msg(int msg_type, void *payload, i2d_fn *encode, EVP_PKEY *key,
                         X509 *signer_cert, X509 *recipient_cert, int pki_status, const char *tx_id,
                         const void *recipient_nonce, int recipient_nonce_len, const EVP_MD *md,
                         const EVP_CIPHER *cipher, PKCS7 **out);

/*
 * A self-signed certificate, version 1, valid from now for an hour, issuer and subject `name`.
 * Returns 0; 2; 76; 44 (or 2) it cannot be signed.
 */
PKI_API int gen_ss_cert(EVP_PKEY *sign_key, EVP_PKEY *pub_key, const X509_NAME *name,
                        const ASN1_INTEGER *serial, const EVP_MD *md, X509 **out);

/*
 * PKCSReq: asks for a certificate. It is a PKCS#10 request (signed with MD5) for `pub_key` under
 * `subject` (null: empty), with `attrs` in order, under a self-signed certificate. Transaction id:
 * the hexadecimal MD5 of the public key's DER; its 32 characters are the certificate's serial
 * number too. What an attribute's one string says is taken for a secret: no copy of it is left
 * behind in memory.
 * Returns 0; 2; 44 (or 2); 76; the codes of gen_scep_msg.
 */
PKI_API int gen_scep_cert_req(EVP_PKEY *sign_key, EVP_PKEY *pub_key, const X509_NAME *subject,
                              X509 *ca_cert, X509_ATTRIBUTE **attrs, int attr_count,
                              const EVP_MD *md, const EVP_CIPHER *cipher, PKCS7 **out);

/*
 * GetCertInitial: polls for a pending request. Continues the transaction of `earlier`: its id,
 * and its sender nonce as recipient nonce.
 * Returns 0; 68, also for a nonce that is an empty BIT STRING; the codes of get_string_attr,
 * get_os_attr_val and gen_scep_msg.
 */
PKI_API int gen_scep_get_cert_init(SCEP_ISSUER_AND_SUBJECT *ias, EVP_PKEY *key, X509 *signer_cert,
                                   X509 *ca_cert, PKCS7 *earlier, const EVP_MD *md,
                                   const EVP_CIPHER *cipher, PKCS7 **out);

/*
 * GetCert: asks for an issued certificate. A null `signer_cert` is replaced by a self-signed one
 * for `pub_key`. Returns 0; the codes of gen_ss_cert and gen_scep_msg.
 */
PKI_API int gen_scep_get_cert(PKCS7_ISSUER_AND_SERIAL *ias, EVP_PKEY *key, X509 *signer_cert,
                              EVP_PKEY *pub_key, X509 *ca_cert, const EVP_MD *md,
                              const EVP_CIPHER *cipher, PKCS7 **out);

/*
 * CertRep, SUCCESS: hands an issued certificate over. It is `issued_cert` and `signer_cert` for
 * `recipient_cert`, with the digest, the cipher and the transaction of `request`.
 * Returns 0; 2; 72 (or 2); 76; the codes of get_string_attr, get_os_attr_val and gen_scep_msg.
 */
PKI_API int gen_scep_cert_rep(X509 *issued_cert, EVP_PKEY *key, X509 *signer_cert,
                              X509 *recipient_cert, PKCS7 *request, PKCS7 **out);

/*
 * CertRep without a payload: PENDING or FAILURE. A negative `fail_info` is left out.
 * Returns as gen_scep_cert_rep.
 */
PKI_API int gen_scep_sts_rep(int pki_status, int fail_info, EVP_PKEY *key, X509 *signer_cert,
                             PKCS7 *request, PKCS7 **out);

/* ---- opening messages ---- */

/*
 * Verifies a SCEP message, opens its envelope and decodes its payload. `signer` is as in
 * pkcs7_verify, and set on success only; the envelope is opened with the recipient's `key` and
 * `cert`, and what `decode` makes of the payload is stored in `*out`, the caller's.
 * Without a `*signer` of the caller's, whoever made the message has verified it: that fits a
 * responder's first look at a PKCSReq and nothing else.
 * Returns 0; the codes of pkcs7_verify and pkcs7_decrypt; 74 (or 2) content that is no data, no
 * PKCS#7 or no payload.
 */
PKI_API int scep_unwrap_msg(PKCS7 *msg, d2i_fn *decode, X509 **signer, EVP_PKEY *key, X509 *cert,
                            void **out);

/* The same for one type of payload. PKCS7, a degenerate SignedData with the certificates. */
PKI_API int parse_scep_cert_rep(PKCS7 *msg, X509 **signer, EVP_PKEY *key, X509 *cert, void **out);
/* The same for a PKCS7_ISSUER_AND_SERIAL. */
PKI_API int parse_scep_get_cert(PKCS7 *msg, X509 **signer, EVP_PKEY *key, X509 *cert, void **out);
/* The same for a SCEP_ISSUER_AND_SUBJECT. */
PKI_API int parse_scep_get_cert_init(PKCS7 *msg, X509 **signer, EVP_PKEY *key, X509 *cert,
                                     void **out);
/* The same for an X509_REQ. */
PKI_API int parse_scep_cert_req(PKCS7 *msg, X509 **signer, EVP_PKEY *key, X509 *cert, void **out);

/*
 * Verifies a reply that has a status and no payload. Read the status with attributes.h.
 * Returns the codes of pkcs7_verify.
 */
PKI_API int parse_scep_sts_rep(PKCS7 *msg, X509 **signer);

/*
 * Does `response` answer `request`? It does with equal transaction ids, where the response's
 * recipient nonce is the request's sender nonce. With `require_recipient_nonce` 0 a response
 * without one passes.
 * Returns 0, or 77, as a rule with the cause in a line at level 3.
 */
PKI_API int check_tx_attrs(PKCS7 *request, PKCS7 *response, int require_recipient_nonce);

PKI_END_DECLS

#endif
