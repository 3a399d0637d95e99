// The responder's side of SCEP: CertRep.
#include <libpki/error.h>
#include <libpki/pkcs7.h>
#include <libpki/util.h>
#include <openssl/objects.h>

#include "common/log.h"
#include "common/pkcs7.h"
#include "common/scep_msg.h"

namespace pki {

namespace {

// A SignedData without signers around an empty data: how certificates travel.
int make_degenerate(X509 *issued_cert, X509 *signer_cert, pkcs7_ptr *out) {
  pkcs7_ptr made(PKCS7_new());
  if (!made || PKCS7_set_type(made.get(), NID_pkcs7_signed) != 1 ||
      PKCS7_content_new(made.get(), NID_pkcs7_data) != 1)
    return openssl_failure(PKI_INTERNAL_ERROR);
  if (PKCS7_add_certificate(made.get(), issued_cert) != 1 ||
      PKCS7_add_certificate(made.get(), signer_cert) != 1)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  *out = std::move(made);
  return PKI_OK;
}

// The digest that the request was signed with, or else the key's.
int reply_digest(PKCS7 *request, EVP_PKEY *key, const EVP_MD **md) {
  *md = nullptr;
  const PKCS7_SIGNED *signed_data = signed_data_of(request);
  const PKCS7_SIGNER_INFO *signer =
      signed_data ? sk_PKCS7_SIGNER_INFO_value(signed_data->signer_info, 0) : nullptr;
  if (signer && signer->digest_alg && signer->digest_alg->algorithm)
    *md = EVP_get_digestbyname(OBJ_nid2sn(OBJ_obj2nid(signer->digest_alg->algorithm)));
  return choose_digest(md, key);
}

// The cipher of the request's envelope, or else DES-CBC. Returns 0 or 2.
int reply_cipher(PKCS7 *request, const EVP_CIPHER **cipher) {
  openssl_error_mark discard_errors;
  int queue_end = openssl_queue_end();
  pkcs7_ptr envelope(decode_envelope(request));
  *cipher = nullptr;
  if (envelope && PKCS7_type_is_enveloped(envelope.get()) && envelope->d.enveloped &&
      envelope->d.enveloped->enc_data && envelope->d.enveloped->enc_data->algorithm)
    *cipher = EVP_get_cipherbyname(
        OBJ_nid2sn(OBJ_obj2nid(envelope->d.enveloped->enc_data->algorithm->algorithm)));
  if (!*cipher && openssl_malloc_failure_behind(queue_end))
    return PKI_OUT_OF_MEMORY;
  if (!*cipher)
    *cipher = EVP_des_cbc();
  return PKI_OK;
}

int make_empty_data(pkcs7_ptr *out) {
  pkcs7_ptr made(PKCS7_new());
  if (!made || PKCS7_set_type(made.get(), NID_pkcs7_data) != 1)
    return openssl_failure(PKI_INTERNAL_ERROR);
  *out = std::move(made);
  return PKI_OK;
}

}  // namespace

}  // namespace pki

using namespace pki;

int gen_scep_cert_rep(X509 *issued_cert, EVP_PKEY *key, X509 *signer_cert, X509 *recipient_cert,
                      PKCS7 *request, PKCS7 **out) {
  if (!out)
    return PKI_INVALID_ARGS;
  *out = nullptr;
  if (!issued_cert || !key || !signer_cert || !recipient_cert || !request)
    return PKI_INVALID_ARGS;
  scep_transaction transaction;
  if (int error = read_transaction(request, &transaction))
    return error;
  pkcs7_ptr payload;
  if (int error = make_degenerate(issued_cert, signer_cert, &payload))
    return error;
  const EVP_MD *md;
  if (int error = reply_digest(request, key, &md))
    return error;
  const EVP_CIPHER *cipher;
  if (int error = reply_cipher(request, &cipher))
    return error;
  return gen_scep_msg(SCEP_CERT_REP, payload.get(), reinterpret_cast<i2d_fn *>(i2d_PKCS7), key,
                      signer_cert, recipient_cert, SCEP_STATUS_SUCCESS, transaction.id,
                      transaction.nonce, transaction.nonce_length, md, cipher, out);
}

int gen_scep_sts_rep(int pki_status, int fail_info, EVP_PKEY *key, X509 *signer_cert,
                     PKCS7 *request, PKCS7 **out) {
  if (!out)
    return PKI_INVALID_ARGS;
  *out = nullptr;
  if (!key || !signer_cert || !request)
    return PKI_INVALID_ARGS;
  pkcs7_ptr data;
  if (int error = make_empty_data(&data))
    return error;
  int nonce_length = scep_nonce_bytes;
  malloc_ptr<unsigned char> nonce(gen_nonce(&nonce_length));
  if (!nonce)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  scep_transaction transaction;
  if (int error = read_transaction(request, &transaction))
    return error;
  int count = 0;
  X509_ATTRIBUTE **made =
      gen_tx_attrs(SCEP_CERT_REP, transaction.id, nonce.get(), nonce_length, transaction.nonce,
                   transaction.nonce_length, pki_status, fail_info, &count);
  tx_attributes attributes(made, count);
  if (!attributes)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  const EVP_MD *md;
  if (int error = reply_digest(request, key, &md))
    return error;
  int error =
      pkcs7_sign(signer_cert, key, md, data.get(), attributes.get(), attributes.count(), out);
  if (!error)
    data.release();
  return error;
}
