#include "verifier/crl_cache/ext_compare.h"

#include <cstring>

namespace pki {

namespace {

constexpr int full_name = 0;
constexpr int relative_name = 1;

// The same pointer is equal and null comes first; else `compare` decides.
template <class T, class Compare>
int compare_pointers(const T *a, const T *b, Compare compare) {
  if (a == b)
    return 0;
  if (!a)
    return -1;
  return b ? compare(a, b) : 1;
}

int compare_strings(const ASN1_STRING *a, const ASN1_STRING *b) {
  return compare_pointers(a, b, ASN1_STRING_cmp);
}

int compare_algorithms(const X509_ALGOR *a, const X509_ALGOR *b) {
  if (int order = OBJ_cmp(a->algorithm, b->algorithm))
    return order;
  return compare_pointers(a->parameter, b->parameter, ASN1_TYPE_cmp);
}

int compare_bits(const unsigned char *a, int a_size, const unsigned char *b, int b_size) {
  if (a_size != b_size)
    return a_size - b_size;
  return a_size > 0 ? std::memcmp(a, b, static_cast<size_t>(a_size)) : 0;
}

int compare_entries(const X509_NAME_ENTRY *a, const X509_NAME_ENTRY *b) {
  if (int order = OBJ_cmp(X509_NAME_ENTRY_get_object(a), X509_NAME_ENTRY_get_object(b)))
    return order;
  return ASN1_STRING_cmp(X509_NAME_ENTRY_get_data(a), X509_NAME_ENTRY_get_data(b));
}

int compare_relative_names(const STACK_OF(X509_NAME_ENTRY) * a,
                           const STACK_OF(X509_NAME_ENTRY) * b) {
  if (a == b)
    return 0;
  if (!a)
    return 1;
  if (!b)
    return -1;
  int count = sk_X509_NAME_ENTRY_num(a);
  if (count != sk_X509_NAME_ENTRY_num(b))
    return count - sk_X509_NAME_ENTRY_num(b);
  for (int i = 0; i < count; i++)
    if (int order = compare_entries(sk_X509_NAME_ENTRY_value(a, i), sk_X509_NAME_ENTRY_value(b, i)))
      return order;
  return 0;
}

int compare_point_names(const DIST_POINT_NAME *a, const DIST_POINT_NAME *b) {
  if (a->type != b->type)
    return a->type - b->type;
  switch (a->type) {
    case full_name:
      return GENERAL_NAMES_cmp(a->name.fullname, b->name.fullname);
    case relative_name:
      return compare_relative_names(a->name.relativename, b->name.relativename);
    default:
      return 1;
  }
}

int compare_names(const GENERAL_NAMES *a, const GENERAL_NAMES *b) {
  int count = sk_GENERAL_NAME_num(a);
  if (count != sk_GENERAL_NAME_num(b))
    return count - sk_GENERAL_NAME_num(b);
  for (int i = 0; i < count; i++)
    if (int order = GENERAL_NAME_cmp(sk_GENERAL_NAME_value(a, i), sk_GENERAL_NAME_value(b, i)))
      return order;
  return 0;
}

int compare_public_keys(const X509_PUBKEY *a, const X509_PUBKEY *b) {
  X509_ALGOR *a_algorithm, *b_algorithm;
  const unsigned char *a_bits, *b_bits;
  int a_size, b_size;
  X509_PUBKEY_get0_param(nullptr, &a_bits, &a_size, &a_algorithm, a);
  X509_PUBKEY_get0_param(nullptr, &b_bits, &b_size, &b_algorithm, b);
  if (int order = compare_pointers(a_algorithm, b_algorithm, compare_algorithms))
    return order;
  return compare_bits(a_bits, a_size, b_bits, b_size);
}

int compare_issuing_points(const ISSUING_DIST_POINT *a, const ISSUING_DIST_POINT *b) {
  if (int order = compare_pointers(a->distpoint, b->distpoint, compare_point_names))
    return order;
  if (int order = a->onlyuser - b->onlyuser)
    return order;
  if (int order = a->onlyCA - b->onlyCA)
    return order;
  if (int order = compare_strings(a->onlysomereasons, b->onlysomereasons))
    return order;
  if (int order = a->indirectCRL - b->indirectCRL)
    return order;
  return a->onlyattr - b->onlyattr;
}

int compare_key_ids(const AUTHORITY_KEYID *a, const AUTHORITY_KEYID *b) {
  if (int order = compare_strings(a->keyid, b->keyid))
    return order;
  if (int order = GENERAL_NAMES_cmp(a->issuer, b->issuer))
    return order;
  return compare_strings(a->serial, b->serial);
}

}  // namespace

// NOLINTBEGIN(readability-identifier-naming)
int X509_PUBKEY_cmp(const X509_PUBKEY *a, const X509_PUBKEY *b) {
  return compare_pointers(a, b, compare_public_keys);
}

int GENERAL_NAMES_cmp(const GENERAL_NAMES *a, const GENERAL_NAMES *b) {
  return compare_pointers(a, b, compare_names);
}

int ISSUING_DIST_POINT_cmp(const ISSUING_DIST_POINT *a, const ISSUING_DIST_POINT *b) {
  return compare_pointers(a, b, compare_issuing_points);
}

int AUTHORITY_KEYID_cmp(const AUTHORITY_KEYID *a, const AUTHORITY_KEYID *b) {
  return compare_pointers(a, b, compare_key_ids);
}
// NOLINTEND(readability-identifier-naming)

}  // namespace pki
