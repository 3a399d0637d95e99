// The form of a signed message: no signature covers the octets that hold its parts together, so
// they are checked for saying what an honest sender writes. What a message merely carries along
// (certificates, CRLs, unauthenticated attributes) is neither covered nor relied on.
#include <openssl/objects.h>

#include "common/limits.h"
#include "common/pkcs7.h"

namespace pki {

// OpenSSL fails late, and leaks, on a digest that it does not have.
static bool is_usable_digest(const X509_ALGOR *algorithm) {
  int nid = OBJ_obj2nid(algorithm->algorithm);
  evp_md_ptr fetched(nid == NID_undef ? nullptr : EVP_MD_fetch(nullptr, OBJ_nid2sn(nid), nullptr));
  return fetched != nullptr;
}

// Older releases of OpenSSL 3.0 take whatever stands there for an OCTET STRING.
static bool has_readable_digest(PKCS7_SIGNER_INFO *signer) {
  const ASN1_TYPE *digest = PKCS7_get_signed_attribute(signer, NID_pkcs9_messageDigest);
  return !digest || digest->type == V_ASN1_OCTET_STRING;
}

// Without a digest in the list, older releases of OpenSSL 3.0 may free twice what they read from.
bool has_bearable_signers(const PKCS7_SIGNED *signed_data) {
  int signers = sk_PKCS7_SIGNER_INFO_num(signed_data->signer_info);
  int digests = sk_X509_ALGOR_num(signed_data->md_algs);
  if (signers > pkcs7_max_signers || digests < 1 || digests > pkcs7_max_signers)
    return false;
  for (int i = 0; i < signers; i++)
    if (!has_readable_digest(sk_PKCS7_SIGNER_INFO_value(signed_data->signer_info, i)))
      return false;
  for (int i = 0; i < sk_X509_ALGOR_num(signed_data->md_algs); i++)
    if (!is_usable_digest(sk_X509_ALGOR_value(signed_data->md_algs, i)))
      return false;
  return true;
}

namespace {

constexpr long rfc2315_version = 1;

// Depths of elements in a ContentInfo, itself 0: SignedData's members, SignerInfo's members, and
// the values of an attribute.
constexpr int signed_data_member = 3;
constexpr int signer_info_member = 5;
constexpr int attribute_values = 7;

bool is_version_1(const ASN1_INTEGER *version) {
  return version && ASN1_INTEGER_get(version) == rfc2315_version;
}

// RFC 3370 2: a digest algorithm has NULL parameters or none.
bool has_no_parameters(const X509_ALGOR *algorithm) {
  int type = V_ASN1_UNDEF;
  X509_ALGOR_get0(nullptr, &type, nullptr, algorithm);
  return type == V_ASN1_UNDEF || type == V_ASN1_NULL;
}

// The signature algorithm is the key's type, or a signature of that type over this digest.
bool is_signature_of(const X509_ALGOR *signature, const X509_ALGOR *digest, const EVP_PKEY *key) {
  int nid = OBJ_obj2nid(signature->algorithm);
  if (nid == EVP_PKEY_base_id(key))
    return true;
  int digest_nid = NID_undef;
  int key_nid = NID_undef;
  return OBJ_find_sigid_algs(nid, &digest_nid, &key_nid) == 1 &&
         digest_nid == OBJ_obj2nid(digest->algorithm) &&
         EVP_PKEY_type(key_nid) == EVP_PKEY_base_id(key);
}

bool lists_digest(const PKCS7_SIGNED *signed_data, const X509_ALGOR *digest) {
  for (int i = 0; i < sk_X509_ALGOR_num(signed_data->md_algs); i++) {
    const X509_ALGOR *listed = sk_X509_ALGOR_value(signed_data->md_algs, i);
    if (!has_no_parameters(listed))
      return false;
    if (OBJ_cmp(listed->algorithm, digest->algorithm) == 0)
      return true;
  }
  return false;
}

struct element {
  int form;  // what ASN1_get_object returned
  int tag;
  int tag_class;
  const unsigned char *contents;
  const unsigned char *end;

  bool is_constructed() const { return form & V_ASN1_CONSTRUCTED; }
  bool is_indefinite() const { return form & 1; }
  bool is_context() const { return tag_class == V_ASN1_CONTEXT_SPECIFIC; }
  bool is(int universal_tag) const { return tag_class == V_ASN1_UNIVERSAL && tag == universal_tag; }
};

bool read_element(const unsigned char *at, const unsigned char *end, element *out) {
  long length;
  out->contents = at;
  out->form = ASN1_get_object(&out->contents, &length, &out->tag, &out->tag_class, end - at);
  out->end = out->contents + length;
  return !(out->form & 0x80);
}

bool is_attribute(const element &one) {
  element type;
  element values;
  return one.is(V_ASN1_SEQUENCE) && read_element(one.contents, one.end, &type) &&
         type.is(V_ASN1_OBJECT) && read_element(type.end, one.end, &values) &&
         values.is(V_ASN1_SET) && values.end == one.end;
}

// What RFC 2315 9.3 digests in the place of the content of a signer who has attributes.
bool is_set_of_attributes(const unsigned char *at, const unsigned char *end) {
  openssl_error_mark discard_errors;
  element set;
  if (at == end || !read_element(at, end, &set) || !set.is(V_ASN1_SET) || set.end != end)
    return false;
  for (at = set.contents; at < end;) {
    element one;
    if (!read_element(at, end, &one) || !is_attribute(one))
      return false;
    at = one.end;
  }
  return set.contents < end;
}

// A signature over somebody's attributes would be one over content of the same octets.
bool could_be_another_signature(const PKCS7_SIGNER_INFO *signer, const ASN1_OCTET_STRING *content) {
  return sk_X509_ATTRIBUTE_num(signer->auth_attr) < 1 && content->length > 0 &&
         is_set_of_attributes(content->data, content->data + content->length);
}

}  // namespace

// RFC 2315 9.1 and 9.2.
bool says_what_an_honest_sender_writes(const PKCS7_SIGNED *signed_data, const EVP_PKEY *key) {
  if (!is_version_1(signed_data->version))
    return false;
  const ASN1_OCTET_STRING *content = signed_data->contents->d.data;
  for (int i = 0; i < sk_PKCS7_SIGNER_INFO_num(signed_data->signer_info); i++) {
    const PKCS7_SIGNER_INFO *signer = sk_PKCS7_SIGNER_INFO_value(signed_data->signer_info, i);
    if (!is_version_1(signer->version) || !has_no_parameters(signer->digest_alg) ||
        !has_no_parameters(signer->digest_enc_alg) ||
        !is_signature_of(signer->digest_enc_alg, signer->digest_alg, key) ||
        !lists_digest(signed_data, signer->digest_alg) ||
        could_be_another_signature(signer, content))
      return false;
  }
  return true;
}

namespace {

// X.690 8.9.1 and 8.11.1: a sequence or set is constructed; so is every tagged part of a
// SignedData and of a SignerInfo.
bool must_be_constructed(const element &one, int depth) {
  return one.is(V_ASN1_SEQUENCE) || one.is(V_ASN1_SET) ||
         (one.is_context() && depth <= signer_info_member);
}

// Certificates and CRLs are not covered by the signature, and not relied on.
bool is_carried_along(const element &one, int depth) {
  return one.is_context() && depth == signed_data_member;
}

bool elements_have_honest_tags(const unsigned char *at, const unsigned char *end, int depth) {
  while (at < end) {
    element one;
    if (!read_element(at, end, &one))
      return false;
    // A sender that streams writes indefinite lengths, which the decoder has judged.
    if (one.is_indefinite())
      return true;
    if (!one.is_constructed() && must_be_constructed(one, depth))
      return false;
    if (one.is_constructed() && depth < attribute_values && !is_carried_along(one, depth) &&
        !elements_have_honest_tags(one.contents, one.end, depth + 1))
      return false;
    at = one.end;
  }
  return true;
}

}  // namespace

bool has_honest_tags(const unsigned char *der, int length) {
  return elements_have_honest_tags(der, der + length, 0);
}

}  // namespace pki
