/*
 * pkcs7.h: signing and enveloping byte strings as PKCS#7 messages (RFC 2315).
 *
 * Codes written "2 or N" are 2 when OpenSSL reports an allocation failure and N otherwise.
 * Outputs are null or zero after a failure. Any thread.
 */
#ifndef LIBPKI_PKCS7_H
#define LIBPKI_PKCS7_H

#include <libpki/types.h>
#include <openssl/pkcs7.h>

PKI_BEGIN_DECLS

/*
 * A stand-in certificate for a bare key, where OpenSSL wants a signer's. It holds `key` as its
 * public key and the serial number 1, and nothing else. The caller frees it.
 * Returns 0; 2; 27 (or 2); 63.
 */
PKI_API int create_dummy_cert(EVP_PKEY *key, X509 **cert);

/*
 * Signs `length` octets with `key`. `*der` (malloc, the caller's) receives a SignedData with the
 * data inside and no certificates. The digest is OpenSSL's default for the key.
 * Returns 0; 2; 11, 25, 27 (or 2); 63 null argument or negative length.
 */
PKI_API int sign_bytes(const void *data, int length, EVP_PKEY *key, unsigned char **der,
                       int *der_length);

/*
 * Opens what sign_bytes made. A message is accepted only when every signature in it was made by
 * `key`: a signer's certificate in the message counts only if its public key is `key`.
 * `*content` (malloc, the caller's) receives a copy of the signed data, non-null also for none.
 * Returns 0; 20 not PKCS#7 (or 2); 29 no SignedData, no embedded data, or a signature that is not
 * the key's, or more than 16 signers or digests; 27 (or 2); 73 the signed content is not data; 2;
 * 63 null argument or negative length.
 */
PKI_API int verify_bytes(const unsigned char *der, int der_length, EVP_PKEY *key,
                         unsigned char **content, int *content_length);

/*
 * What a SignedData computes its digest over, for the inner content `content`, as a BIO to read
 * from. For data these are its octets, for the enveloped and signed types the
 * contents octets of the inner structure's DER. `*buffer` receives what the BIO reads from; free
 * it (free) after the BIO (BIO_free). Null for data.
 * Returns 0; 2; 11 (or 2); 73 another content type; 74 no content, or DER without contents; 63
 * `bio` or `buffer` is null.
 */
PKI_API int get_pkcs7_digest_food(PKCS7 *content, BIO **bio, unsigned char **buffer);

/*
 * Builds a SignedData around `content`: with `signer_cert` in it, one SignerInfo of `key` and
 * `md`, and the authenticated attributes contentType and copies of `attrs` from the last to the
 * first (OpenSSL adds its own and sorts them when it finishes). After success `*out` owns
 * `content`; after a failure the caller still does.
 * Returns 0; 2; 23, 24, 72, 11 (or 2); 73, 74 as get_pkcs7_digest_food; 63.
 */
PKI_API int pkcs7_sign(X509 *signer_cert, EVP_PKEY *key, const EVP_MD *md, PKCS7 *content,
                       X509_ATTRIBUTE **attrs, int attr_count, PKCS7 **out);

/*
 * Verifies a SignedData that pkcs7_sign made; no certificate is checked against a chain.
 *
 * With `*signer` set, the first SignerInfo must name it (by its *subject* and serial number, as
 * fits a self-signed request certificate) and verify under its public key. With `*signer` null,
 * the certificate in the message that the first SignerInfo names is stored there, or null; it
 * belongs to the message. `signer` itself may be null. `*content` receives the inner content,
 * which belongs to `p7`; `content` may be null. Both are unchanged after a failure.
 * Returns 0; 66 no SignedData; 67 no signers; 73, 74 unusable content; 11 (or 2); 26 a
 * signature does not verify, or more than 16 signers or digests (or 2); 28 the first SignerInfo is
 * not the given signer's; 2; 63.
 */
PKI_API int pkcs7_verify(PKCS7 *p7, X509 **signer, PKCS7 **content);

/*
 * Envelopes `length` octets for one recipient (an RSA certificate) with `cipher`. The caller
 * frees `*out` with PKCS7_free. Returns 0; 2; 11, 21 (or 2); 63.
 */
PKI_API int pkcs7_encrypt(X509 *recipient, const void *data, int length, const EVP_CIPHER *cipher,
                          PKCS7 **out);

/*
 * Opens an EnvelopedData. `*data` (malloc, the caller's) receives the plaintext.
 * Returns 0; 2; 22 not an EnvelopedData for this recipient (or 2); 74 an EnvelopedData without
 * content; 63.
 */
PKI_API int pkcs7_decrypt(PKCS7 *p7, EVP_PKEY *key, X509 *cert, unsigned char **data, int *length);

PKI_END_DECLS

#endif
