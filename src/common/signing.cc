#include "common/signing.h"

#include <libpki/util.h>
#include <openssl/err.h>
#include <openssl/objects.h>

#include "common/ossl_ptr.h"

namespace pki {

bool set_signature_algorithm(X509_ALGOR *algorithm, EVP_PKEY *key, const EVP_MD *md) {
  int type = EVP_PKEY_get_base_id(key);
  int nid;
  if (OBJ_find_sigid_by_algs(&nid, EVP_MD_get_type(md), type) != 1)
    return false;
  // RFC 3279: RSA signatures have NULL parameters, others none.
  return X509_ALGOR_set0(algorithm, OBJ_nid2obj(nid),
                         type == EVP_PKEY_RSA ? V_ASN1_NULL : V_ASN1_UNDEF, nullptr) == 1;
}

bool sign_octets(EVP_PKEY *key, const EVP_MD *md, const unsigned char *octets, int length,
                 ASN1_BIT_STRING *signature) {
  evp_md_ctx_ptr context(EVP_MD_CTX_new());
  auto capacity = static_cast<size_t>(EVP_PKEY_get_size(key));
  malloc_ptr<unsigned char> made(static_cast<unsigned char *>(allocate(capacity)));
  if (!made)
    ERR_raise(ERR_LIB_X509, ERR_R_MALLOC_FAILURE);
  if (!context || !made || EVP_DigestSignInit(context.get(), nullptr, md, nullptr, key) != 1 ||
      EVP_DigestSign(context.get(), made.get(), &capacity, octets, static_cast<size_t>(length)) !=
          1 ||
      ASN1_STRING_set(signature, made.get(), static_cast<int>(capacity)) != 1)
    return false;
  // No unused bits, whatever the last octet.
  signature->flags |= ASN1_STRING_FLAG_BITS_LEFT;
  return true;
}

bool sign_cert(X509 *cert, EVP_PKEY *key, const EVP_MD *md) {
  const ASN1_BIT_STRING *signature;
  const X509_ALGOR *algorithm;
  X509_get0_signature(&signature, &algorithm, cert);
  if (!set_signature_algorithm(const_cast<X509_ALGOR *>(algorithm), key, md) ||
      !set_signature_algorithm(const_cast<X509_ALGOR *>(X509_get0_tbs_sigalg(cert)), key, md))
    return false;
  int length;
  malloc_ptr<unsigned char> text(
      der_encode(cert, reinterpret_cast<i2d_fn *>(i2d_re_X509_tbs), &length));
  return text && sign_octets(key, md, text.get(), length, const_cast<ASN1_BIT_STRING *>(signature));
}

}  // namespace pki
