// PKCS#10 requests that carry the device's secret.
//
// OpenSSL copies attributes, sorts their encodings, and frees all of it as it is. So it only sees
// blanks where attributes have strings; the octets themselves go into the finished encodings, whose
// memory is overwritten before it is freed.
#include <libpki/error.h>
#include <libpki/util.h>

#include <cstring>

#include "common/log.h"
#include "common/scep_msg.h"
#include "common/signing.h"

namespace pki {

namespace {

using x509_attribute_ptr = std::unique_ptr<X509_ATTRIBUTE, free_with<X509_ATTRIBUTE_free>>;
using x509_algor_ptr = std::unique_ptr<X509_ALGOR, free_with<X509_ALGOR_free>>;
using asn1_bit_string_ptr = std::unique_ptr<ASN1_BIT_STRING, free_with<ASN1_BIT_STRING_free>>;

constexpr unsigned long string_types =
    B_ASN1_OCTET_STRING | B_ASN1_UTF8STRING | B_ASN1_NUMERICSTRING | B_ASN1_PRINTABLESTRING |
    B_ASN1_T61STRING | B_ASN1_IA5STRING | B_ASN1_VISIBLESTRING | B_ASN1_GENERALSTRING |
    B_ASN1_UNIVERSALSTRING | B_ASN1_BMPSTRING;

// The string that is an attribute's one value, or null.
const ASN1_STRING *secret_of(X509_ATTRIBUTE *attribute) {
  if (X509_ATTRIBUTE_count(attribute) != 1)
    return nullptr;
  const ASN1_TYPE *value = X509_ATTRIBUTE_get0_type(attribute, 0);
  bool is_string = value && (ASN1_tag2bit(value->type) & string_types) != 0;
  return is_string ? value->value.asn1_string : nullptr;
}

// The same attribute with zeros in the place of the secret.
x509_attribute_ptr blank_of(X509_ATTRIBUTE *attribute, const ASN1_STRING *secret) {
  int length = ASN1_STRING_length(secret);
  malloc_ptr<unsigned char> zeros(
      static_cast<unsigned char *>(std::calloc(static_cast<size_t>(length) + 1, 1)));
  return x509_attribute_ptr(
      zeros ? X509_ATTRIBUTE_create_by_OBJ(nullptr, X509_ATTRIBUTE_get0_object(attribute),
                                           ASN1_STRING_type(secret), zeros.get(), length)
            : nullptr);
}

bool add_blanked(X509_REQ *request, X509_ATTRIBUTE *attribute) {
  const ASN1_STRING *secret = secret_of(attribute);
  if (!secret)
    return X509_REQ_add1_attr(request, attribute) == 1;
  x509_attribute_ptr blank = blank_of(attribute, secret);
  return blank && X509_REQ_add1_attr(request, blank.get()) == 1;
}

// Puts a secret into the place of its blank, at the end of the blanked attribute's encoding.
bool fill_in(const secret_octets &der, X509_ATTRIBUTE *blank, const ASN1_STRING *secret) {
  int length;
  malloc_ptr<unsigned char> place(
      der_encode(blank, reinterpret_cast<i2d_fn *>(i2d_X509_ATTRIBUTE), &length));
  if (!place)
    return false;
  auto size = static_cast<size_t>(length);
  auto *found = static_cast<unsigned char *>(
      memmem(der.get(), static_cast<size_t>(der.length()), place.get(), size));
  if (!found)
    return false;
  auto octets = static_cast<size_t>(ASN1_STRING_length(secret));
  if (octets > 0)
    std::memcpy(found + size - octets, ASN1_STRING_get0_data(secret), octets);
  return true;
}

// The encoding of a blanked request with the secrets of `attrs` in it.
bool encode_filled(X509_REQ *blank, i2d_fn *encode, X509_ATTRIBUTE **attrs, secret_octets *der) {
  int length = 0;
  unsigned char *octets = der_encode(blank, encode, &length);
  der->reset(octets, length);
  if (!octets)
    return false;
  for (int i = 0; i < X509_REQ_get_attr_count(blank); i++) {
    const ASN1_STRING *secret = secret_of(attrs[i]);
    if (secret && !fill_in(*der, X509_REQ_get_attr(blank, i), secret))
      return false;
  }
  return true;
}

bool set_md5_algorithm(X509_REQ *request, EVP_PKEY *key) {
  x509_algor_ptr algorithm(X509_ALGOR_new());
  return algorithm && set_signature_algorithm(algorithm.get(), key, EVP_md5()) &&
         X509_REQ_set1_signature_algo(request, algorithm.get()) == 1;
}

int sign_filled(X509_REQ *blank, EVP_PKEY *key, X509_ATTRIBUTE **attrs) {
  secret_octets text;
  asn1_bit_string_ptr signature(ASN1_BIT_STRING_new());
  if (!signature || !set_md5_algorithm(blank, key))
    return openssl_failure(PKI_SIGN_FAILED);
  if (!encode_filled(blank, reinterpret_cast<i2d_fn *>(i2d_re_X509_REQ_tbs), attrs, &text))
    return openssl_failure(PKI_OUT_OF_MEMORY);
  if (!sign_octets(key, EVP_md5(), text.get(), text.length(), signature.get()))
    return openssl_failure(PKI_SIGN_FAILED);
  X509_REQ_set0_signature(blank, signature.release());
  return PKI_OK;
}

}  // namespace

int make_request(EVP_PKEY *sign_key, EVP_PKEY *pub_key, const X509_NAME *subject,
                 X509_ATTRIBUTE **attrs, int attr_count, x509_req_ptr *blanked,
                 secret_octets *der) {
  x509_req_ptr blank(X509_REQ_new());
  if (!blank || X509_REQ_set_version(blank.get(), X509_REQ_VERSION_1) != 1 ||
      X509_REQ_set_pubkey(blank.get(), pub_key) != 1 ||
      X509_REQ_set_subject_name(blank.get(), subject) != 1)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  for (int i = 0; i < attr_count; i++)
    if (!attrs[i] || !add_blanked(blank.get(), attrs[i]))
      return openssl_failure(PKI_OUT_OF_MEMORY);
  if (int error = sign_filled(blank.get(), sign_key, attrs))
    return error;
  if (!encode_filled(blank.get(), reinterpret_cast<i2d_fn *>(i2d_X509_REQ), attrs, der))
    return openssl_failure(PKI_OUT_OF_MEMORY);
  *blanked = std::move(blank);
  return PKI_OK;
}

int i2d_secret_octets(const void *octets, unsigned char **out) {
  const auto *der = static_cast<const secret_octets *>(octets);
  if (out) {
    std::memcpy(*out, der->get(), static_cast<size_t>(der->length()));
    *out += der->length();
  }
  return der->length();
}

}  // namespace pki
