/*
 * scep_client.h: enrolling and looking certificates up by SCEP (RFC 8894) over HTTP.
 *
 * A request goes out by GET with its base64 text as it is, line feeds included. Each call blocks
 * for its exchanges, an enrollment for as long as the CA answers PENDING. Any thread, once
 * libpki_init has run.
 */
#ifndef LIBPKI_SCEP_CLIENT_H
#define LIBPKI_SCEP_CLIENT_H

#include <libpki/records.h>
#include <openssl/pkcs7.h>

PKI_BEGIN_DECLS

/*
 * Enrolls `private_key` with the CA that `info` describes, under `subject` (null: empty). While
 * the CA answers PENDING the call sleeps 600 seconds and polls. `*cert` receives the certificate.
 * The device's serial number and secret, read from the board, go along inside the envelope.
 * Digest and cipher are those that `info` names; an unknown name means the default, and a line at
 * level 4 says so.
 *
 * Returns 0; 63 a null argument, or `info` has no URL or no CA certificate; 78 the board fails;
 * 2; 49; 58 the CA refused; 59 its answer is not one; 52 ("NO SUCH CERT") still pending when
 * polling was stopped or its limit reached; 45, 47, 48 as send_scep_msg; 21 (or 2) the cipher
 * cannot be used; the codes of gen_scep_cert_req and gen_scep_get_cert_init. All but 63, 49 and
 * some 2 are logged.
 */
PKI_API int scep_cert_req(EVP_PKEY *private_key, const X509_NAME *subject,
                          const scep_req_info *info, X509 **cert);

/*
 * Fetches the certificate of `query`'s issuer and serial number into `query->cert`; one that is
 * there already is replaced on success only. The CA's word for it is taken: issuer and serial
 * number of what it sent are not compared. Digest and cipher as for scep_cert_req.
 * Returns 0; 63 as scep_cert_req, or no issuer or serial number; 2; 49; 58 refused, or PENDING;
 * 59 the answer is not one; 62 the request cannot be made; 45, 47, 48 as send_scep_msg.
 */
PKI_API int scep_qry_cert(cert_info *query, scep_req_info *info, EVP_PKEY *private_key);

/*
 * Sends `message` to `url` and reads the answer into `*body` (malloc, the caller's).
 * Returns 0; 2; 45 no http URL (a line at level 3); 47, 48 as send_http_get, 47 also for a
 * status other than 200 (a line at level 4); 63.
 */
PKI_API int send_scep_msg(PKCS7 *message, const char *url, void **body, int *body_length);

/*
 * Decodes and checks a CertRep: its transaction against `request`, its signature against
 * `ca_cert`. On SUCCESS `*content` is the opened answer, a SignedData with the certificates;
 * `own_cert` is the requester's, to open it. `*status` means something only after 0.
 * Returns 0, or 59 with both messages null and as a rule a line at level 3 (59 without one when
 * `ca_cert` is null: nothing is verified by what a reply brought along); 63.
 */
PKI_API int parse_scep_rsp(const unsigned char *der, int der_length, EVP_PKEY *private_key,
                           X509 *ca_cert, X509 *own_cert, PKCS7 *request, PKCS7 **response,
                           int *status, PKCS7 **content);

/*
 * Lets a host out of an enrollment that is pending. While stopped (non-zero), scep_cert_req
 * returns 52 after the current answer instead of sleeping, and after a sleep that ends, with a line
 * at level 4. A signal to the enrolling thread, with a handler of the host's, ends a sleep that has
 * begun; one that comes just before it does not, so repeat it until the call returns. Off (0) at
 * load. Returns the previous value. Any thread.
 */
PKI_API int scep_stop_polling(int stop);

/*
 * How many polls, 600 seconds apart, a pending enrollment (scep_cert_req) makes before it returns
 * 52. 0, as at load: no limit; scep_stop_polling(1) is the way to have none. Returns the previous
 * value. Any thread.
 */
PKI_API unsigned int scep_limit_polls(unsigned int polls);

PKI_END_DECLS

#endif
