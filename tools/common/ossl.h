// Owners of OpenSSL's objects.
#ifndef TOOLS_COMMON_OSSL_H
#define TOOLS_COMMON_OSSL_H

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

namespace tools {

template <auto Free>
struct free_with {
  template <class T>
  void operator()(T *object) const {
    Free(object);
  }
};

using bio_ptr = std::unique_ptr<BIO, free_with<BIO_free_all>>;
using cert_ptr = std::unique_ptr<X509, free_with<X509_free>>;
using key_ptr = std::unique_ptr<EVP_PKEY, free_with<EVP_PKEY_free>>;
using pkcs7_ptr = std::unique_ptr<PKCS7, free_with<PKCS7_free>>;

}  // namespace tools

#endif
