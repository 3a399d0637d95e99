// A key of somebody else under which an ECDSA signature verifies too: the curve's generator is
// chosen so that it does, which a certificate's public key may say of itself. Whoever has the
// signature can make such a key.
#ifndef TESTS_SUPPORT_SECOND_KEY_H
#define TESTS_SUPPORT_SECOND_KEY_H

#include <openssl/ec.h>
#include <openssl/ecdsa.h>

#include <memory>
#include <string>

#include "support/certs.h"

namespace support {

namespace second_key {

using number = std::shared_ptr<BIGNUM>;
using point = std::shared_ptr<EC_POINT>;
using context = std::shared_ptr<BN_CTX>;

inline number make_number() {
  return number(BN_new(), BN_free);
}
inline point make_point(const EC_GROUP *group) {
  return point(EC_POINT_new(group), EC_POINT_free);
}

// With r and s of the signature and e, the digest: R = (e/s) G + (r/s) Q is what a verification
// computes. For a private key d of one's own, G' = R / (e/s + d r/s) gives the same R.
inline point generator_for(const EC_GROUP *group, const EC_POINT *public_point,
                           const ECDSA_SIG *signature, const BIGNUM *digest, const BIGNUM *secret,
                           BN_CTX *work) {
  const BIGNUM *order = EC_GROUP_get0_order(group);
  number inverse = make_number(), of_generator = make_number(), of_point = make_number();
  BN_mod_inverse(inverse.get(), ECDSA_SIG_get0_s(signature), order, work);
  BN_mod_mul(of_generator.get(), digest, inverse.get(), order, work);
  BN_mod_mul(of_point.get(), ECDSA_SIG_get0_r(signature), inverse.get(), order, work);
  point computed = make_point(group), generator = make_point(group);
  EC_POINT_mul(group, computed.get(), of_generator.get(), public_point, of_point.get(), work);
  BN_mod_mul(of_point.get(), of_point.get(), secret, order, work);
  BN_mod_add(of_point.get(), of_point.get(), of_generator.get(), order, work);
  BN_mod_inverse(of_point.get(), of_point.get(), order, work);
  EC_POINT_mul(group, generator.get(), nullptr, computed.get(), of_point.get(), work);
  return generator;
}

inline key key_of(EC_GROUP *group, const BIGNUM *secret, BN_CTX *work) {
  point public_point = make_point(group);
  EC_POINT_mul(group, public_point.get(), secret, nullptr, nullptr, work);
  EC_KEY *pair = EC_KEY_new();
  EC_KEY_set_group(pair, group);
  EC_KEY_set_private_key(pair, secret);
  EC_KEY_set_public_key(pair, public_point.get());
  key made(EVP_PKEY_new(), EVP_PKEY_free);
  EVP_PKEY_assign_EC_KEY(made.get(), pair);
  return made;
}

}  // namespace second_key

// For a CRL that `owner`, a key on a named curve, signed with SHA-256.
inline key second_key_for(const X509_CRL *crl, const key &owner) {
  using namespace second_key;
  const ASN1_BIT_STRING *octets = nullptr;
  X509_CRL_get0_signature(crl, &octets, nullptr);
  const unsigned char *in = octets->data;
  std::shared_ptr<ECDSA_SIG> signature(d2i_ECDSA_SIG(nullptr, &in, octets->length), ECDSA_SIG_free);
  unsigned char *tbs = nullptr;
  int length = i2d_re_X509_CRL_tbs(const_cast<X509_CRL *>(crl), &tbs);
  unsigned char digest_octets[EVP_MAX_MD_SIZE];
  unsigned digest_length = 0;
  EVP_Digest(tbs, static_cast<size_t>(length), digest_octets, &digest_length, EVP_sha256(),
             nullptr);
  OPENSSL_free(tbs);
  number digest(BN_bin2bn(digest_octets, static_cast<int>(digest_length), nullptr), BN_free);
  number secret = make_number();
  BN_set_word(secret.get(), 123456789);
  context work(BN_CTX_new(), BN_CTX_free);
  const EC_KEY *own = EVP_PKEY_get0_EC_KEY(owner.get());
  const EC_GROUP *named = EC_KEY_get0_group(own);
  std::shared_ptr<EC_GROUP> group(EC_GROUP_dup(named), EC_GROUP_free);
  EC_GROUP_set_asn1_flag(group.get(), OPENSSL_EC_EXPLICIT_CURVE);
  EC_GROUP_set_curve_name(group.get(), NID_undef);
  point generator = generator_for(named, EC_KEY_get0_public_key(own), signature.get(), digest.get(),
                                  secret.get(), work.get());
  EC_GROUP_set_generator(group.get(), generator.get(), EC_GROUP_get0_order(named), BN_value_one());
  return key_of(group.get(), secret.get(), work.get());
}

}  // namespace support

#endif
